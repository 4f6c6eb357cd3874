#include "platform/thread.h"

#include <pthread.h>

namespace platform {

bool startDetachedThread(void (*body)())
{
    pthread_t thread;
    auto entry = [](void* argument) -> void* {
        reinterpret_cast<void (*)()>(argument)();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, entry, reinterpret_cast<void*>(body)) != 0) return false;
    pthread_detach(thread);
    return true;
}

}  // namespace platform
