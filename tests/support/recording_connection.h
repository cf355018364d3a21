#pragma once

#include "vindra/http/http_connection.h"

#include <string>
#include <vector>

/// A connection that notes what its hooks saw, does what the library's hooks do (but for the
/// log line), and accepts WebSocket traffic.
///
/// Make one with `new` or make_unique_for_overwrite(): make_unique() zeroes the send buffer of
/// a class without a constructor of its own, 1 MiB each time.
class recording_connection : public http_connection {
public:
    void on_headers() override {
        calls += "headers ";
        method_seen = method;
        url_seen = url;
        version_seen = version;
        path_seen = path;
        query_seen = query;
        cookie_seen = cookie;
        headers_seen = headers;
        content_length_seen = content_length;
    }
    void on_data(char* bytes, int length) override {
        calls += "data ";
        body_seen.append(bytes, static_cast<std::size_t>(length));
        http_connection::on_data(bytes, length);
    }
    void on_upgrade() override { calls += "upgrade "; }
    void on_message() override {
        calls += "message ";
        messages.push_back(message);
        http_connection::on_message();
    }
    void on_request() override {
        calls += "request ";
        ++requests;
        data_seen = data;
        http_connection::on_request();
    }

    /// The hooks in the order of their calls, each followed by a blank.
    std::string calls;

    /// The fields as the last on_headers() saw them.
    std::string method_seen;
    std::string url_seen;
    std::string version_seen;
    std::string path_seen;
    std::string query_seen;
    std::string cookie_seen;
    std::string headers_seen;
    int content_length_seen = -1;

    /// Every byte given to on_data(), and `data` as the last on_request() saw it.
    std::string body_seen;
    std::string data_seen;

    int requests = 0;
    std::vector<std::string> messages;
};
