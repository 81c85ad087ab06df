// Names of functions: demangled, and reduced to what is the same in every build.
#pragma once

#include <string>
#include <string_view>

namespace report {

// The demangled name; the symbol itself where it is not mangled or could demangle to a very long
// name.
std::string Demangle(std::string_view symbol);

// A demangled name without return type, arguments, template arguments, suffixes of clones, hashes
// and numbers of lambdas: what two builds of one source agree on.
// A function of the C++ library that forwards a call to a lambda is named as the lambda: where an
// optimising compiler inlines the lambda, it is all that is left of it.
std::string PlainName(std::string_view function);

// True for a function of the C++ library.
bool IsForwarder(std::string_view function);

}  // namespace report
