#pragma once

#include "vindra/core/connection.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <typeinfo>

/// A connection that records what it is handed and sends what the test has put into `output`.
class scripted_connection : public connection {
public:
    ~scripted_connection() override {
        if (on_end) on_end();
    }

    void on_recv(char* data, int length) override {
        received.append(data, static_cast<std::size_t>(length));
        ++reads;
        if (when_read) when_read(*this);
    }

    bool on_send(char* buffer, int capacity, int* length) override {
        ++asked;
        const std::size_t count = std::min(output.size(), static_cast<std::size_t>(capacity));
        std::memcpy(buffer, output.data(), count);
        output.erase(0, count);
        *length = static_cast<int>(count);
        return stay || !output.empty();
    }

    std::string received;
    std::string output;
    bool stay = true;
    int reads = 0;
    int asked = 0;
    std::function<void(scripted_connection&)> when_read;
    std::function<void()> on_end;
};

/// The same of a class that is left alone while it has nothing to send.
class resting_connection : public scripted_connection {
public:
    resting_connection() {
        quiet_when<resting_connection>(
            [](const resting_connection& conn) { return conn.output.empty(); });
    }
};
