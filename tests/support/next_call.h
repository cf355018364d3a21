#pragma once

#include <dlfcn.h>

/// The function that a definition of ours stands before: the C library's, as a rule. `Function` is
/// its type; with `decltype` of an overloaded one, write the type out.
template <typename Function>
Function* next_call(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
