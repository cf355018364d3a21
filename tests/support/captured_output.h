#pragma once

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

/// What is printed to standard output during the life of this object.
class captured_output {
public:
    captured_output() {
        std::fflush(stdout);
        testing::internal::CaptureStdout();
    }
    captured_output(const captured_output&) = delete;
    captured_output& operator=(const captured_output&) = delete;
    ~captured_output() {
        if (open_) take();
    }

    /// Ends the capture and returns all of it.
    std::string take() {
        open_ = false;
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

private:
    bool open_ = true;
};
