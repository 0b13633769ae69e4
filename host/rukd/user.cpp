#include "user.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <iterator>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kKept[] = {CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_NICE};
constexpr unsigned long kOn = 1;
constexpr unsigned long kOff = 0;

bool is_kept(int capability) {
    return std::find(std::begin(kKept), std::end(kKept), capability) != std::end(kKept);
}

// No program that is started later gets one of the others, whatever its file says.
bool limit_capabilities() {
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; capability++) {
        if (!is_kept(capability) && prctl(PR_CAPBSET_DROP, capability) != 0) {
            return false;
        }
    }
    return true;
}

// The kernel would take all capabilities with root's id.
bool take_ids(const passwd &user) {
    return prctl(PR_SET_KEEPCAPS, kOn) == 0 && initgroups(user.pw_name, user.pw_gid) == 0 &&
           setresgid(user.pw_gid, user.pw_gid, user.pw_gid) == 0 &&
           setresuid(user.pw_uid, user.pw_uid, user.pw_uid) == 0 &&
           prctl(PR_SET_KEEPCAPS, kOff) == 0;
}

// For this thread, and those that it starts; none of them to be inherited by programs.
bool keep_capabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    for (const int capability : kKept) {
        __user_cap_data_struct &set = sets[CAP_TO_INDEX(capability)];
        set.effective |= CAP_TO_MASK(capability);
        set.permitted = set.effective;
    }
    return syscall(SYS_capset, &header, sets) == 0;
}

bool never_gain_more() {
    return prctl(PR_SET_NO_NEW_PRIVS, kOn, kOff, kOff, kOff) == 0;
}

bool refuse(const char *name, const char *why) {
    (void)fprintf(stderr, "rukd: user '%s': %s\n", name, why);
    return false;
}

bool failed(const char *name, const char *action) {
    (void)fprintf(stderr, "rukd: user '%s': %s: %s\n", name, action, strerror(errno));
    return false;
}

} // namespace

bool become_user(const char *name) {
    errno = 0;
    const passwd *user = getpwnam(name);
    if (user == nullptr) {
        return errno == 0 ? refuse(name, "no such user") : failed(name, "look up");
    }
    if (user->pw_uid == 0) {
        return refuse(name, "has all of root's files");
    }
    if (!limit_capabilities()) {
        return failed(name, "give up root's capabilities");
    }
    if (!take_ids(*user)) {
        return failed(name, "take its id and groups");
    }
    if (!keep_capabilities()) {
        return failed(name, "keep CAP_NET_RAW, CAP_NET_ADMIN and CAP_SYS_NICE");
    }
    return never_gain_more() || failed(name, "close the way back");
}
