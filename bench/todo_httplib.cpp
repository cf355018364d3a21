// The service of examples/todo.cpp on Debian's libcpp-httplib-dev, for bench/beside_httplib, which
// builds it. Several threads answer, so what they share is guarded.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include <httplib.h>
#include <nlohmann/json.hpp>

namespace {

using httplib::Request;
using httplib::Response;
using nlohmann::json;

std::map<int, json> todos;
int last_id = 0;
std::mutex guard;

void send(Response& answer, int status, const json& body) {
    answer.status = status;
    answer.set_content(body.dump(), "application/json");
}

void fail(Response& answer, int status, const char* reason) {
    send(answer, status, {{"error", reason}});
}

// Takes what the body says into `todo`; false where it makes no sense and has its 400.
bool take_body(const Request& request, Response& answer, json& todo) {
    const json sent = json::parse(request.body, nullptr, false);
    if (!sent.is_object() || !(sent.contains("text") || todo.contains("text")) ||
        !sent.value("text", json("")).is_string() || !sent.value("done", json(false)).is_boolean())
        return fail(answer, 400, R"(send {"text": "...", "done": false})"), false;
    for (const char* key : {"text", "done"})
        if (sent.contains(key)) todo[key] = sent[key];
    return true;
}

void list(const Request& request, Response& answer) {
    json found = json::array();
    const bool wanted = request.get_param_value("done") == "true";
    for (const auto& [id, todo] : todos)
        if (!request.has_param("done") || todo["done"] == wanted) found.push_back(todo);
    send(answer, 200, found);
}

void add(const Request& request, Response& answer) {
    json todo = {{"id", last_id + 1}, {"done", false}};
    if (!take_body(request, answer, todo)) return;
    todos[++last_id] = todo;
    answer.set_header("Location", "/todos/" + std::to_string(last_id));
    send(answer, 201, todo);
}

using act = void (*)(const Request&, Response&, json&);

// A handler for the entry that the path names.
httplib::Server::Handler for_entry(act then) {
    return [then](const Request& request, Response& answer) {
        const std::lock_guard lock(guard);
        const auto todo = todos.find(std::atoi(request.matches[1].str().c_str()));
        if (todo == todos.end()) return fail(answer, 404, "not found");
        then(request, answer, todo->second);
    };
}

httplib::Server::Handler guarded(void (*then)(const Request&, Response&)) {
    return [then](const Request& request, Response& answer) {
        const std::lock_guard lock(guard);
        then(request, answer);
    };
}

httplib::Server::Handler only(const char* methods) {
    return [methods](const Request&, Response& answer) {
        answer.status = 405;
        answer.set_header("Allow", methods);
    };
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) return std::puts("usage: todo_httplib PORT"), 1;
    constexpr const char* entry = R"(/todos/([1-9]\d*))";
    httplib::Server todo;
    todo.set_tcp_nodelay(true);
    todo.set_keep_alive_max_count(1000000000);
    todo.set_payload_max_length(4096);

    todo.Get("/todos", guarded(list)).Post("/todos", guarded(add));
    todo.Put("/todos", only("GET, HEAD, POST")).Delete("/todos", only("GET, HEAD, POST"));
    todo.Get(entry, for_entry([](const Request&, Response& answer, json& one) {
                 send(answer, 200, one);
             }));
    todo.Put(entry, for_entry([](const Request& request, Response& answer, json& one) {
                 if (take_body(request, answer, one)) send(answer, 200, one);
             }));
    todo.Delete(entry, for_entry([](const Request&, Response& answer, json& one) {
                    todos.erase(one["id"].get<int>());
                    answer.status = 204;
                }));
    todo.Post(entry, only("GET, HEAD, PUT, DELETE"));
    todo.listen("127.0.0.1", std::atoi(argv[1]));
}
