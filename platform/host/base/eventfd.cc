// Event descriptors.
#include <sys/eventfd.h>

#include <cerrno>

#include "host_internal.h"

extern "C" QOV_PLAT_API int eventfd_s(unsigned int initval, int flags) {
    qovhost::Journal("eventfd_s", {initval, static_cast<uint64_t>(static_cast<uint32_t>(flags))});
    int64_t r = 0;
    if (qovhost::Fail("eventfd_s", &r)) {
        errno = EMFILE;
        return r < 0 ? static_cast<int>(r) : -1;
    }
    return eventfd(initval, flags);
}
