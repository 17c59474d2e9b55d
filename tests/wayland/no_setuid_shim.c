/* Preloaded into a wlroots compositor started as root by the tests: it refuses to run when
 * it could take root back after dropping it, so here giving up and regaining ids both fail. */
#include <errno.h>
#include <sys/types.h>

int setuid(uid_t uid)
{
    (void)uid;
    errno = EPERM;
    return -1;
}

int setgid(gid_t gid)
{
    (void)gid;
    errno = EPERM;
    return -1;
}
