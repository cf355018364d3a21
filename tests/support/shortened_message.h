#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

/// A copy of a message of sendmsg() or recvmsg() that stops after its first `most` bytes.
class shortened_message {
public:
    shortened_message(const msghdr& whole, std::size_t most)
        : message_(whole), pieces_(whole.msg_iov, whole.msg_iov + whole.msg_iovlen) {
        for (iovec& piece : pieces_) {
            piece.iov_len = std::min(piece.iov_len, most);
            most -= piece.iov_len;
        }
        message_.msg_iov = pieces_.data();
    }
    shortened_message(const shortened_message&) = delete;
    shortened_message& operator=(const shortened_message&) = delete;

    msghdr* get() { return &message_; }

private:
    msghdr message_;
    std::vector<iovec> pieces_;
};
