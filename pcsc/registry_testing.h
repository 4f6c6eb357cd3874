// Test seam of the registry: not part of the library's interface, and not
// exported. Lets a test process run one start-up after another.
#pragma once

namespace registry_testing {

// Waits until every discovery thread has ended, stops the workers of
// every rack, frees racks and readers, and empties g_racks and the list of
// card handles. No host thread may be inside the API meanwhile.
void shutdownAllRacks();

}  // namespace registry_testing
