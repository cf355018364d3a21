#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

/// A folder of its own for a test, removed with all it holds when the test ends.
class temporary_folder {
public:
    temporary_folder() {
        std::string name = testing::TempDir() + "vindra_XXXXXX";
        if (mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "no folder " << name;
        root_ = name;
    }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    ~temporary_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    /// Path of the file `name`, which need not exist.
    std::string path(const std::string& name) const { return root_ + "/" + name; }

    /// Puts `bytes` in the file `name` and gives its path.
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

private:
    std::string root_;
};
