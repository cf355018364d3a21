#pragma once

#include "vindra/tls/openssl.h"

#include <cstddef>
#include <string>
#include <vector>

/// Puts functions of the test in the place of those that a server calls, for the life of this
/// object. Sessions are plain sockets: bytes pass as they are. Objects nest.
class fake_openssl {
public:
    fake_openssl();
    fake_openssl(const fake_openssl&) = delete;
    fake_openssl& operator=(const fake_openssl&) = delete;
    ~fake_openssl();

    /// The names of the functions in place here.
    static const std::vector<std::string>& names();

    /// Makes the function `name` a missing one: a call throws.
    static void take_away(const std::string& name);

    /// Every call in order: the name, and behind it what is worth comparing.
    static std::vector<std::string> calls;

    /// What the next SSL_read() or SSL_write() does instead of moving bytes: sets errno (unless
    /// 0) and returns `result`.
    struct outcome {
        int result;
        int error;
    };
    static std::vector<outcome> read_outcomes;
    static std::vector<outcome> write_outcomes;

    /// Whether contexts and sessions can be had; true for every new object.
    static bool makes_contexts;
    static bool makes_sessions;

    /// Sessions made and not released yet.
    static std::size_t open_sessions();

private:
    std::vector<void*> originals_;
};
