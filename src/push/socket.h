// Move-only owner of a socket descriptor.
#pragma once

namespace velocast::push {

class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() { close(); }
    Socket(Socket &&other) noexcept : fd_(other.release()) {}
    Socket &operator=(Socket &&other) noexcept;
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    int fd() const { return fd_; }
    bool isValid() const { return fd_ >= 0; }

    // Wakes any thread blocked on the socket (its waits report ready, its writes fail) and
    // sends FIN to the peer, but keeps the descriptor: closing it while another thread may
    // still poll it would let the number be reused under that thread's feet. A socket must
    // still be closed after shutdown.
    void shutdown();
    void close();
    int release();

private:
    int fd_ = -1;
};

} // namespace velocast::push
