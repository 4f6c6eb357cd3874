// The reader layer's side of the mailbox copy hook of the test seam
// (test_seam.h): called in every read of a mailbox, between the copy of the
// frame and the moment the reader records it as taken. Costs one relaxed
// load when no test has set a hook.
#pragma once

namespace platform {

void runMailboxCopyHook();

}  // namespace platform
