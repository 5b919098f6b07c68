// No-op stub of the relabelling of an application's files: a host has no labels to give.
// Returns 0, or -1 with errno set for a path that is not there, or when host/relabel_observer.h is
// used to refuse. Safe from any thread.

#pragma once

#include <sys/types.h>

#define SELINUX_ANDROID_RESTORECON_RECURSE 4

extern "C" {

int selinux_android_restorecon_pkgdir(const char* pkgdir, const char* seinfo, uid_t uid,
                                      unsigned int flags);

}  // extern "C"
