// Serves the files of one folder to GET and HEAD. Answers 200 or 404, and a range with the whole
// file.
//
// No path leads out of the folder: each name is opened below the last one, "." and ".." are
// refused, and no link is followed.

#include "vindra/base/form.h"
#include "vindra/core/server.h"
#include "vindra/http/http_connection.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int folder = -1;

// Opens the file at `path`, which begins with a slash, below the folder. Returns -1 if there is
// none.
int open_below_folder(std::string_view path) {
    if (!path.starts_with('/')) return -1;
    int at = folder;
    while (at >= 0 && !path.empty()) {
        path.remove_prefix(1);
        const std::string name(path.substr(0, path.find('/')));
        path.remove_prefix(name.size());
        const bool leads_down =
            !name.empty() && name != "." && name != ".." && name.find('\0') == std::string::npos;
        // Opening a pipe without a writer must not block the loop.
        const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const int next = leads_down ? openat(at, name.c_str(), flags) : -1;
        if (at != folder) close(at);
        at = next;
    }
    return at;
}

const char* type_of(const std::string& path) {
    if (path.ends_with(".html")) return "text/html; charset=utf-8";
    if (path.ends_with(".txt")) return "text/plain; charset=utf-8";
    if (path.ends_with(".css")) return "text/css";
    if (path.ends_with(".js")) return "text/javascript";
    if (path.ends_with(".png")) return "image/png";
    return "application/octet-stream";
}

class file_connection : public http_connection {
public:
    void on_request() override {
        const std::string name = base::percent_decode(path);
        const int opened = method == "GET" || method == "HEAD" ? open_below_folder(name) : -1;
        struct stat about {};
        if (opened < 0 || fstat(opened, &about) != 0 || !S_ISREG(about.st_mode)) {
            if (opened >= 0) close(opened);
            return write("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n", "Not found\n");
        }

        write(std::string("HTTP/1.1 200 OK\r\nContent-Type: ") + type_of(name) +
                  "\r\nContent-Length: " + std::to_string(about.st_size) + "\r\n",
              "");
        if (method == "HEAD") {
            close(opened);
            return;
        }
        // Sent from its current position to its end, one buffer at a time, as fast as the client
        // reads.
        auto* const part = new response_part;
        part->file = fdopen(opened, "rb");
        parts.add(part);
    }
};

} // namespace

int main(int argc, char** argv) {
    folder = argc == 3 ? open(argv[2], O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
    if (folder < 0) {
        std::puts("usage: files PORT FOLDER");
        return 1;
    }
    server<file_connection> files(std::atoi(argv[1]), true);
    files.run();
}
