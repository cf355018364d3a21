// Writes what it reads as JSON text, for a reader that is not ours to check:
//
//   json_dump escape              the bytes as one quoted string
//   json_dump var compact|pretty  an object made of their lines, see sample()

#include "vindra/base/escape.h"
#include "vindra/base/var.h"

#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

// The lines as they are, their lengths, a row for each with its number, and an object for
// each below a key that is the line itself.
var sample(const std::string& input) {
    const var lines = var(input).split("\n");
    var lengths = var::array();
    var rows = var::array();
    var named = var::object();
    for (int i = 0; i < lines.size(); ++i) {
        const var line = lines.get(i);
        lengths.push(line.size());
        var row = var::array();
        row.push(i + 0.5);
        row.push(line);
        rows.push(row);
        var entry = var::object();
        entry.set("last", i == lines.size() - 1);
        entry.set("none", var());
        entry.set("rows", rows.get(i));
        named.set(line, entry);
    }
    var all = var::object();
    all.set("lines", lines);
    all.set("lengths", lengths);
    all.set("rows", rows);
    all.set("named", named);
    all.set("empty array", var::array());
    all.set("empty object", var::object());
    return all;
}

std::string json_of(const std::string& input, std::string_view what, std::string_view form) {
    if (what == "escape") return '"' + base::escape(input, true) + '"';
    base::arraylist<var::var_data*> stack;
    return sample(input).to_json_helper(stack, form == "pretty");
}

} // namespace

int main(int argc, char** argv) {
    const std::string input{std::istreambuf_iterator<char>(std::cin), {}};
    const std::string text = json_of(input, argc > 1 ? argv[1] : "", argc > 2 ? argv[2] : "");
    std::fwrite(text.data(), 1, text.size(), stdout);
}
