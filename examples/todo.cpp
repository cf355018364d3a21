// A to-do list with a JSON interface, kept in memory. Shows whole answers, strict reading, queries,
// and JSON by nlohmann-json.

#include "vindra/base/form.h"
#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

std::map<int, json> todos;
int last_id = 0;
const std::string list_path = "/todos";

class todo_connection : public http_connection {
public:
    todo_connection() { read_strictly(4096); }

    void on_request() override {
        if (path == list_path) return on_list();
        const std::size_t slash = path.rfind('/');
        const int id = slash == list_path.size() ? std::atoi(path.c_str() + slash + 1) : 0;
        const auto todo = todos.find(id);
        if (todo == todos.end() || path != path_of(id)) return fail(404, "not found");
        on_entry(id, todo->second);
    }

private:
    static std::string path_of(int id) { return list_path + "/" + std::to_string(id); }

    void on_list() {
        if (method == "POST") return add();
        if (method != "GET" && method != "HEAD") return answer_not_allowed("GET, HEAD, POST");
        const auto done = base::form(query).get("done");
        json list = json::array();
        for (const auto& [id, todo] : todos)
            if (!done || todo["done"] == (*done == "true")) list.push_back(todo);
        send(200, list);
    }

    void on_entry(int id, json& todo) {
        if (method == "DELETE") {
            todos.erase(id);
            return answer(204, "", "");
        }
        if (method != "GET" && method != "HEAD" && method != "PUT")
            return answer_not_allowed("GET, HEAD, PUT, DELETE");
        if (method != "PUT" || take_body(todo)) send(200, todo);
    }

    void add() {
        json todo = {{"id", last_id + 1}, {"done", false}};
        if (!take_body(todo)) return;
        todos[++last_id] = todo;
        extra_headers = "Location: " + path_of(last_id) + "\r\n";
        send(201, todo);
    }

    // Copies the body's fields into `todo`. If the body makes no sense, answers 400 and returns
    // false.
    bool take_body(json& todo) {
        const json sent = json::parse(data, nullptr, false);
        if (!sent.is_object() || !(sent.contains("text") || todo.contains("text")) ||
            !sent.value("text", json("")).is_string() ||
            !sent.value("done", json(false)).is_boolean())
            return fail(400, R"(send {"text": "...", "done": false})"), false;
        for (const char* key : {"text", "done"})
            if (sent.contains(key)) todo[key] = sent[key];
        return true;
    }

    void send(int status, const json& body) { answer(status, "application/json", body.dump()); }
    void fail(int status, const char* reason) { send(status, {{"error", reason}}); }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) return std::puts("usage: todo PORT"), 1;
    server<todo_connection> todo(std::atoi(argv[1]), true);
    todo.run();
}
