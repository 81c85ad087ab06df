#include "function_name.h"

#include <cxxabi.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace report {
namespace {

constexpr size_t kMaxMangled = 4096;
constexpr double kMaxDemangled = 256.0 * 1024;  // the largest bound that is accepted
constexpr size_t kMaxAnalysed = 8192;           // characters: longer names are left as they are
constexpr int kMaxNesting = 8;                  // of templates around a lambda

// A reference to an earlier part of a name repeats it, so a short name can demangle to gigabytes.
// With n references its length grows at most as 3^(n/3) times.
bool MayGrowTooLong(std::string_view symbol) {
  if (symbol.size() > kMaxMangled) return true;
  double references = 0;
  for (size_t i = 0; i + 1 < symbol.size(); ++i) {
    const auto next = static_cast<unsigned char>(symbol[i + 1]);
    const bool numbered = next == '_' || isdigit(next) != 0;
    if (symbol[i] == 'T' && numbered) ++references;
    if (symbol[i] == 'S' && (numbered || isupper(next) != 0)) ++references;
    if (symbol[i] == 'D' && next == 'p') references += 3;  // a pack repeats its pattern
  }
  return static_cast<double>(symbol.size()) * std::pow(3.0, references / 3) > kMaxDemangled;
}

// Where the suffixes that compilers give to copies of a function begin: ".isra.0", ".cold".
size_t CloneSuffix(std::string_view symbol) {
  static constexpr std::string_view kSuffixes[] = {
      "isra",   "constprop", "part",    "cold",    "llvm",  "lto_priv", "localalias", "clone",
      "__uniq", "resume",    "destroy", "cleanup", "actor", "warm",     "hot",        "unlikely"};
  size_t end = symbol.size();
  for (;;) {
    const size_t dot = symbol.substr(0, end).rfind('.');
    if (dot == symbol.npos || dot == 0) return end;
    const std::string_view word = symbol.substr(dot + 1, end - dot - 1);
    const bool number = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
      return isdigit(c) != 0;
    });
    if (!number &&
        std::find(std::begin(kSuffixes), std::end(kSuffixes), word) == std::end(kSuffixes)) {
      return end;
    }
    end = dot;
  }
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// How long the operator's name at the start of the text is: "operator<<", "operator()"; 0 if none.
size_t OperatorLength(std::string_view text) {
  static constexpr std::string_view kWord = "operator";
  if (!StartsWith(text, kWord)) return 0;
  const std::string_view rest = text.substr(kWord.size());
  if (StartsWith(rest, "()") || StartsWith(rest, "[]")) return kWord.size() + 2;
  size_t length = rest.find_first_not_of("<>=!+-*/%^&|~,");
  if (length == rest.npos) length = rest.size();
  // "operator< <int>" and "operator<<int>" can be told apart by the closing bracket alone; the
  // demangler writes the first.
  return length == 0 ? 0 : kWord.size() + length;
}

// The end of a bracketed part that begins the text.
size_t BracketEnd(std::string_view text) {
  const char open = text.front();
  const char close = open == '(' ? ')' : open == '<' ? '>' : open == '{' ? '}' : ']';
  int depth = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '-' && i + 1 < text.size() && text[i + 1] == '>') {
      ++i;  // an arrow closes nothing
    } else if (text[i] == open) {
      ++depth;
    } else if (text[i] == close && --depth == 0) {
      return i + 1;
    }
  }
  return text.size();
}

bool IsWordCharacter(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// A part in braces keeps its kind alone: "{lambda(int)#1}" is "{lambda}".
std::string BracedName(std::string_view part) {
  const size_t end = part.find_first_of("(#'}", 1);
  return std::string(part.substr(0, end == part.npos ? part.size() : end)) + "}";
}

// The name without anything in brackets; spaces in braces do not count as ends of words.
std::string WithoutBrackets(std::string_view name) {
  std::string plain;
  for (size_t i = 0; i < name.size();) {
    const std::string_view rest = name.substr(i);
    const bool word_start = plain.empty() || !IsWordCharacter(plain.back());
    if (const size_t length = word_start ? OperatorLength(rest) : 0; length > 0) {
      plain += rest.substr(0, length);
      i += length;
    } else if (StartsWith(rest, "(anonymous namespace)::")) {
      i += std::string_view("(anonymous namespace)::").size();
    } else if (rest.front() == '{') {
      plain += BracedName(rest.substr(0, BracketEnd(rest)));
      i += BracketEnd(rest);
    } else if (rest.front() == '(' || rest.front() == '<' || rest.front() == '[') {
      const bool arguments = rest.front() == '(' && !plain.empty();
      i += BracketEnd(rest);
      if (!arguments) continue;
      // What follows arguments ("const", "&") up to the next part of the name goes with them.
      const size_t next = name.find(':', i);
      const size_t bracket = name.find_first_of("(<[{", i);
      if (next != name.npos && (bracket == name.npos || next < bracket)) {
        i = next;
      } else if (next == name.npos && bracket == name.npos) {
        break;
      }
    } else {
      plain += rest.front();
      ++i;
    }
  }
  while (!plain.empty() && plain.back() == ' ') plain.pop_back();
  return plain;
}

std::string WithoutReturnType(std::string plain) {
  const size_t op = plain.find("operator ");
  const size_t brace = plain.find('{');
  const size_t end = std::min({op, brace, plain.size()});
  const size_t space = plain.rfind(' ', end);
  if (space != plain.npos && space < end) plain.erase(0, space + 1);
  return plain;
}

// Lambdas are spelled by each compiler in its own way: "{lambda}", "$_0".
std::string WithOneLambda(std::string plain) {
  static constexpr std::string_view kLambda = "{lambda}";
  for (size_t at = 0; (at = plain.find("$_", at)) != plain.npos;) {
    const size_t end = plain.find_first_not_of("0123456789", at + 2);
    plain.replace(at, (end == plain.npos ? plain.size() : end) - at, kLambda);
  }
  for (const std::string_view call : {"::operator()", "::_FUN", "::__invoke"}) {
    const std::string spelled = std::string(kLambda) + std::string(call);
    for (size_t at = 0; (at = plain.find(spelled, at)) != plain.npos;) {
      plain.replace(at, spelled.size(), kLambda);
    }
  }
  return plain;
}

bool NamesLambda(std::string_view text) {
  return text.find("{lambda") != text.npos || text.find("$_") != text.npos;
}

// Where the function's name begins, behind the type that it returns.
size_t NameBegin(std::string_view function) {
  size_t begin = 0;
  for (size_t i = 0; i < function.size();) {
    const std::string_view rest = function.substr(i);
    if (rest.front() == '(' || OperatorLength(rest) > 0) break;
    const bool bracket = rest.front() == '<' || rest.front() == '{';
    i += bracket ? BracketEnd(rest) : 1;
    if (rest.front() == ' ') begin = i;
  }
  return begin;
}

// The lambda among the template arguments of a function, so many levels down through std's own
// templates; empty when there is none.
std::string_view LambdaArgument(std::string_view function, int levels) {
  const size_t open = function.find('<');
  if (open == function.npos || levels == 0) return "";
  const std::string_view inside = function.substr(open, BracketEnd(function.substr(open)));
  for (size_t begin = 1; begin < inside.size();) {
    size_t end = begin;
    while (end < inside.size() && inside[end] != ',' && inside[end] != '>') {
      const bool bracket = inside[end] == '<' || inside[end] == '(' || inside[end] == '{';
      end += bracket ? BracketEnd(inside.substr(end)) : 1;
    }
    std::string_view argument = inside.substr(begin, std::min(end, inside.size()) - begin);
    argument.remove_prefix(std::min(argument.find_first_not_of(' '), argument.size()));
    if (NamesLambda(argument)) {
      return StartsWith(argument, "std::") ? LambdaArgument(argument, levels - 1) : argument;
    }
    begin = end + 1;
  }
  return "";
}

// "::h" and 16 hexadecimal digits, which change with each build of a crate.
void RemoveHash(std::string* plain) {
  constexpr size_t kHash = 3 + 16;
  if (plain->size() <= kHash) return;
  const std::string_view tail = std::string_view(*plain).substr(plain->size() - kHash);
  if (StartsWith(tail, "::h") && tail.find_first_not_of("0123456789abcdef", 3) == tail.npos) {
    plain->resize(plain->size() - kHash);
  }
}

}  // namespace

std::string Demangle(std::string_view symbol) {
  const std::string_view name = symbol.substr(0, symbol.find('@'));  // without the version
  const std::string mangled(name.substr(0, CloneSuffix(name)));
  if (!StartsWith(mangled, "_Z") || MayGrowTooLong(mangled)) return std::string(symbol);
  int status = 0;
  const std::unique_ptr<char, decltype(&free)> demangled(
      abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), free);
  return status == 0 && demangled != nullptr ? demangled.get() : std::string(symbol);
}

bool IsForwarder(std::string_view function) {
  if (function.size() > kMaxAnalysed) return false;
  const std::string name = WithoutReturnType(WithoutBrackets(function));
  return StartsWith(name, "std::") || StartsWith(name, "__gnu_cxx::");
}

std::string PlainName(std::string_view function) {
  if (function.size() > kMaxAnalysed) return std::string(function);
  std::string_view name = function.substr(0, function.find('@'));
  name = name.substr(0, CloneSuffix(name));
  if (NamesLambda(name) && IsForwarder(name)) {
    const std::string_view lambda = LambdaArgument(name.substr(NameBegin(name)), kMaxNesting);
    if (!lambda.empty()) name = lambda.substr(0, lambda.find_last_not_of("&* ") + 1);
  }
  std::string plain = WithOneLambda(WithoutReturnType(WithoutBrackets(name)));
  RemoveHash(&plain);
  return plain.empty() ? std::string(function) : plain;
}

}  // namespace report
