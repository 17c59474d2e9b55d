#include "push/socket.h"

#include <sys/socket.h>
#include <unistd.h>

namespace velocast::push {

Socket &Socket::operator=(Socket &&other) noexcept
{
    if (this != &other) {
        close();
        fd_ = other.release();
    }
    return *this;
}

void Socket::shutdown()
{
    if (fd_ >= 0)
        ::shutdown(fd_, SHUT_RDWR);
}

void Socket::close()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

int Socket::release()
{
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

} // namespace velocast::push
