// Answers with what the library did before main(), both where it is linked whole and where
// the linker picks what is used. The TLS library's macros come first: they bear names of ours.

#if __has_include(<openssl/ssl.h>)
#include <openssl/err.h>
#include <openssl/ssl.h>
#endif

#include <csignal>
#include <cstdlib>
#include <string>

#include <all_headers.h>

namespace {

std::string sigpipe;

class reporter : public http_connection {
    void on_request() override {
        const char* const tls = openssl::_import.handle != nullptr ? "TLS bound" : "no TLS";
        write("HTTP/1.1 200 OK\r\n", sigpipe + ", " + tls + ", " + method + "\n");
    }
};

// The exception crosses the border of the library.
bool throws_text() {
    try {
        openssl::throw_import_error();
    } catch (const std::string& text) {
        return text == openssl::_import.error;
    }
}

// So do casts between its classes.
bool casts() {
    const connection* const conn = new reporter;
    const bool up = dynamic_cast<const http_connection*>(conn) != nullptr;
    const bool aside = dynamic_cast<const http_proxy*>(conn) != nullptr;
    delete conn;
    return up && !aside;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !throws_text() || !casts()) return 1;
    sigpipe = std::signal(SIGPIPE, SIG_IGN) == SIG_IGN ? "SIGPIPE ignored" : "SIGPIPE kills";
    server<reporter> plain(std::atoi(argv[1]), true);
    ssl_server<reporter> disabled(0, true, "", "");
    abstract_server* servers[] = {&plain, &disabled, nullptr};
    abstract_server::run(servers);
    return 0;
}
