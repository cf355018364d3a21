#pragma once

#include "vindra/base/print.h"
#include "vindra/core/abstract_server.h"
#include "vindra/core/server.h"
#include "vindra/proxy/http_proxy.h"
#include "vindra/proxy/redirect_server.h"
#include "vindra/proxy/redirector.h"
#include "vindra/tls/ssl_server.h"

#include <memory>
#include <string>

/// The program's set-up with TLS. Sees every folder, unlike what else stands in this one.
namespace https {

/// The server that stands before the TLS server: one on `port` that redirects to `ssl_port`, or,
/// with `port` 0, one that never listens and only drives the backend connections. Says which.
template <typename T>
std::unique_ptr<server<T>> first_server(int port, int ssl_port) {
    if (port == 0) {
        base::puts("Using https only (no http)");
        return std::make_unique<server<T>>(0, false);
    }
    base::printf("Redirecting http (%d) to https (%d)\n", port, ssl_port);
    redirector::ssl_port() = ssl_port;
    return std::make_unique<redirect_server<T>>(port, false);
}

/// Serves connections of class `T` over TLS on `ssl_port` until SIGINT, with the private key and
/// the certificate in the PEM files `key` and `crt`; clients of `port` are redirected, unless it
/// is 0. Backend connections join the plain server of the two.
///
/// True after a normal end, also where a server could not be started. False, with the reason
/// printed, when the TLS library lacks a function that is needed; both servers are gone by then.
template <typename T>
bool run(int ssl_port, const char* key, const char* crt, int port) {
    try {
        // First of all, so that the files are read before any socket is opened; and so it is the
        // last one to go.
        ssl_server<T> tls(ssl_port, false, key, crt);
        const std::unique_ptr<server<T>> first = first_server<T>(port, ssl_port);
        http_proxy::g_server() = first.get();
        abstract_server* servers[] = {first.get(), &tls, nullptr};
        abstract_server::run(servers);
        return true;
    } catch (const std::string& text) {
        base::puts(text.c_str());
        return false;
    }
}

} // namespace https
