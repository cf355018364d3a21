#include "tests/core/walking_world.h"

#include "vindra/proxy/proxy_connection.h"

actor::~actor() {
    world_.actors.erase(id_);
}

void actor::log(const std::string& what) const {
    world_.log.push_back(std::to_string(id_) + " " + what);
}

void member::on_upgrade() {
    subscribe(world_.channel);
}

void member::on_message() {
    if (message == "leave") return unsubscribe(world_.channel);
    publish(world_.channel, message, 1);
}

// The target says what becomes of the backend; its path is what the backend is told.
void relay::on_headers() {
    if (url == "/here") {
        pipe->to_client += "answered here";
        return;
    }
    if (!attached() || backend_port == 0 || url == "/other") {
        backend_port = 1;
        renew_pipe();
        auto* const conn = new proxy_connection(-1, pipe);
        timeout = -1;
        world_.enter(conn);
    }
    pipe->to_backend += url;
}

void walking_server::on_remove(connection* conn) {
    const int number = world_.ids.at(conn);
    world_.log.push_back(std::to_string(number) + " on_remove");
    world_.ids.erase(conn);
    world_.far.erase(number);
    if (number % 5 == 0) world_.join_late();
}

int walking_server::recv(connection* conn, char* buffer, int length) {
    const int count = server::recv(conn, buffer, length);
    world_.log.push_back(std::to_string(world_.ids.at(conn)) + " recv " + std::to_string(count));
    return count;
}

int walking_server::send(connection* conn, char* buffer, int length) {
    const int count = server::send(conn, buffer, length);
    world_.log.push_back(std::to_string(world_.ids.at(conn)) + " send " + std::to_string(count));
    return count;
}
