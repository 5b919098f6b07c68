#include <errno.h>
#include <selinux/android.h>
#include <sys/stat.h>

#include "host/relabel_observer.h"

int selinux_android_restorecon_pkgdir(const char* pkgdir, const char* seinfo, uid_t uid,
                                      unsigned int flags) {
    const int refusal = android::host::tellRelabelObserver(pkgdir, seinfo, uid, flags);
    if (refusal != 0) {
        errno = refusal;
        return -1;
    }
    if (pkgdir == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct stat status;
    return lstat(pkgdir, &status);
}
