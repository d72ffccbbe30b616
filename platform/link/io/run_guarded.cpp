#include "platform/link/io/run_guarded.h"

#include <exception>
#include <new>

#include "platform/link/log.h"

namespace lumora_link {

void RunGuarded(void (*function)(const void* work), const void* work) {
    try {
        function(work);
    } catch (const std::bad_alloc&) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped for want of memory\n");
    } catch (const std::exception& error) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped: %s\n", error.what());
    } catch (...) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped: an exception of an unknown type\n");
    }
}

}  // namespace lumora_link
