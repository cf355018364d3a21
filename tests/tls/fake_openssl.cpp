#include "tests/tls/fake_openssl.h"

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include <sys/socket.h>

std::vector<std::string> fake_openssl::calls;
std::vector<fake_openssl::outcome> fake_openssl::read_outcomes;
std::vector<fake_openssl::outcome> fake_openssl::write_outcomes;
bool fake_openssl::makes_contexts = true;
bool fake_openssl::makes_sessions = true;

namespace {

using outcomes = std::vector<fake_openssl::outcome>;

struct fake_session {
    int fd = -1;
};

// Those of a server that is gone are never released by it: they end with the library.
std::map<const void*, std::unique_ptr<fake_session>> sessions;

fake_session* of(const ssl_st* ssl) {
    return reinterpret_cast<fake_session*>(const_cast<ssl_st*>(ssl));
}

// Any address that is not null will do for what is never looked into.
char method_place;
char context_place;

const ssl_method_st* the_method() {
    return reinterpret_cast<const ssl_method_st*>(&method_place);
}

ssl_ctx_st* context() {
    return reinterpret_cast<ssl_ctx_st*>(&context_place);
}

void note(std::string call) {
    fake_openssl::calls.push_back(std::move(call));
}

unsigned long version_num() {
    note("OpenSSL_version_num");
    return 0x30000000UL;
}

int init_ssl(std::uint64_t opts, const ossl_init_settings_st* settings) {
    note("OPENSSL_init_ssl " + std::to_string(opts) + (settings == nullptr ? " null" : " set"));
    return 1;
}

const ssl_method_st* server_method() {
    note("TLS_server_method");
    return the_method();
}

ssl_ctx_st* ctx_new(const ssl_method_st* method) {
    note(method == the_method() ? "SSL_CTX_new" : "SSL_CTX_new of another method");
    return fake_openssl::makes_contexts ? context() : nullptr;
}

void ctx_free(ssl_ctx_st*) {
    note("SSL_CTX_free");
}

int use_key(ssl_ctx_st*, const char* file, int type) {
    note(std::string("SSL_CTX_use_PrivateKey_file ") + file + " " + std::to_string(type));
    return 0;
}

int use_certificate(ssl_ctx_st*, const char* file, int type) {
    note(std::string("SSL_CTX_use_certificate_file ") + file + " " + std::to_string(type));
    return 0;
}

long ctx_ctrl(ssl_ctx_st*, int command, long number, void*) {
    note("SSL_CTX_ctrl " + std::to_string(command) + " " + std::to_string(number));
    return 0;
}

ssl_st* new_session(ssl_ctx_st* ctx) {
    note(ctx == context() ? "SSL_new" : "SSL_new of another context");
    if (!fake_openssl::makes_sessions) return nullptr;
    auto session = std::make_unique<fake_session>();
    auto* const handle = reinterpret_cast<ssl_st*>(session.get());
    sessions[handle] = std::move(session);
    return handle;
}

void free_session(ssl_st* ssl) {
    note("SSL_free");
    sessions.erase(ssl);
}

int set_fd(ssl_st* ssl, int fd) {
    note("SSL_set_fd");
    of(ssl)->fd = fd;
    return 1;
}

// As an unfinished handshake on a socket that does not block.
int accept_session(ssl_st*) {
    note("SSL_accept");
    errno = EAGAIN;
    return -1;
}

int shut_down(ssl_st*) {
    note("SSL_shutdown");
    return 0;
}

bool take_outcome(outcomes& waiting, int& result) {
    if (waiting.empty()) return false;
    result = waiting.front().result;
    if (waiting.front().error != 0) errno = waiting.front().error;
    waiting.erase(waiting.begin());
    return true;
}

int read_session(ssl_st* ssl, void* buffer, int length) {
    note("SSL_read");
    int result = 0;
    if (take_outcome(fake_openssl::read_outcomes, result)) return result;
    return static_cast<int>(recv(of(ssl)->fd, buffer, static_cast<std::size_t>(length), 0));
}

int write_session(ssl_st* ssl, const void* buffer, int length) {
    note("SSL_write");
    int result = 0;
    if (take_outcome(fake_openssl::write_outcomes, result)) return result;
    return static_cast<int>(send(of(ssl)->fd, buffer, static_cast<std::size_t>(length), 0));
}

// A pointer of the server's, whatever its type, seen as an address that can be exchanged.
struct place {
    std::string name;
    std::function<void*(void*)> exchange;
};

template <typename Function>
place place_of(const char* name, Function*& pointer) {
    return {name, [&pointer](void* address) {
                return reinterpret_cast<void*>(
                    std::exchange(pointer, reinterpret_cast<Function*>(address)));
            }};
}

struct replacement {
    place where;
    void* fake;
};

template <typename Function>
replacement replace(const char* name, Function*& pointer, Function* fake) {
    return {place_of(name, pointer), reinterpret_cast<void*>(fake)};
}

const std::vector<replacement>& replacements() {
    using namespace openssl;
    static const std::vector<replacement> all = {
        replace("OpenSSL_version_num", OpenSSL_version_num, &version_num),
        replace("OPENSSL_init_ssl", OPENSSL_init_ssl, &init_ssl),
        replace("TLS_server_method", TLS_server_method, &server_method),
        replace("SSL_CTX_new", SSL_CTX_new, &ctx_new),
        replace("SSL_CTX_use_PrivateKey_file", SSL_CTX_use_PrivateKey_file, &use_key),
        replace("SSL_CTX_use_certificate_file", SSL_CTX_use_certificate_file, &use_certificate),
        replace("SSL_CTX_ctrl", SSL_CTX_ctrl, &ctx_ctrl),
        replace("SSL_new", SSL_new, &new_session),
        replace("SSL_set_fd", SSL_set_fd, &set_fd),
        replace("SSL_accept", SSL_accept, &accept_session),
        replace("SSL_read", SSL_read, &read_session),
        replace("SSL_write", SSL_write, &write_session),
        replace("SSL_shutdown", SSL_shutdown, &shut_down),
        replace("SSL_free", SSL_free, &free_session),
        replace("SSL_CTX_free", SSL_CTX_free, &ctx_free),
    };
    return all;
}

} // namespace

fake_openssl::fake_openssl() {
    calls.clear();
    read_outcomes.clear();
    write_outcomes.clear();
    makes_contexts = makes_sessions = true;
    for (const auto& r : replacements()) originals_.push_back(r.where.exchange(r.fake));
}

fake_openssl::~fake_openssl() {
    sessions.clear();
    for (std::size_t i = 0; i < originals_.size(); ++i)
        replacements()[i].where.exchange(originals_[i]);
}

std::size_t fake_openssl::open_sessions() {
    return sessions.size();
}

const std::vector<std::string>& fake_openssl::names() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> list;
        for (const auto& r : replacements()) list.push_back(r.where.name);
        return list;
    }();
    return all;
}

void fake_openssl::take_away(const std::string& name) {
    for (const auto& r : replacements())
        if (r.where.name == name)
            r.where.exchange(reinterpret_cast<void*>(&openssl::throw_import_error));
}
