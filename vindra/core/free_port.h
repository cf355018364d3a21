#pragma once

#include "vindra/base/export.h"

/// A port of 127.0.0.1 that was free, for a test that starts a server: while this object lives the
/// kernel gives it to nobody else, and servers of the same user can listen on it.
class VINDRA_API free_port {
public:
    free_port();
    free_port(const free_port&) = delete;
    free_port& operator=(const free_port&) = delete;
    ~free_port();

    /// The port; 0 where none was to be had.
    int number() const { return number_; }

private:
    int fd_;
    int number_ = 0;
};
