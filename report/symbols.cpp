#include "symbols.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "frame_role.h"
#include "function_name.h"

namespace report {
namespace {

namespace fs = std::filesystem;

// Files are looked for in the directories that were named, and nowhere else.
int FindNoDebugFile(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*,
                    GElf_Word, char**) {
  return -1;
}

constexpr Dwfl_Callbacks kCallbacks = {nullptr, FindNoDebugFile, dwfl_offline_section_address,
                                       nullptr};

bool IsFile(const fs::path& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored);  // a pipe of that name would block
}

bool LeavesDirectory(const fs::path& path) {
  for (const fs::path& part : path) {
    if (part == "..") return true;
  }
  return false;
}

// How many parts two paths have in common, from their ends.
std::ptrdiff_t CommonTail(const fs::path& a, const fs::path& b) {
  const std::vector<fs::path> parts_a(a.begin(), a.end()), parts_b(b.begin(), b.end());
  return std::mismatch(parts_a.rbegin(), parts_a.rend(), parts_b.rbegin(), parts_b.rend()).first -
         parts_a.rbegin();
}

// One unstripped file.
class Module {
 public:
  explicit Module(const fs::path& path) : dwfl_(dwfl_begin(&kCallbacks), dwfl_end) {
    if (dwfl_ == nullptr) return;
    module_ = dwfl_report_offline(dwfl_.get(), path.c_str(), path.c_str(), -1);
    if (dwfl_report_end(dwfl_.get(), nullptr, nullptr) != 0) module_ = nullptr;
    GElf_Addr bias = 0;
    if (module_ != nullptr && dwfl_module_getelf(module_, &bias) == nullptr) module_ = nullptr;
    bias_ = bias;
    if (module_ != nullptr) IndexUnits();
  }

  void Describe(TextPool* pool, Frame* frame) const {
    if (module_ == nullptr) return;
    AddName(frame->pc + bias_, pool, frame);
    AddSource(frame->pc, pool, frame);
  }

 private:
  void AddName(Dwarf_Addr address, TextPool* pool, Frame* frame) const {
    if (!frame->symbol.empty()) return;
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* const name =
        dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
    if (name == nullptr) return;
    frame->symbol = pool->Intern(name);
    frame->function_offset = offset;
  }

  static const char* NameOf(Dwarf_Die* die) {
    Dwarf_Attribute attribute;
    for (const unsigned name : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
      if (dwarf_attr_integrate(die, name, &attribute) != nullptr) {
        return dwarf_formstring(&attribute);
      }
    }
    return dwarf_diename(die);
  }

  static std::string SourceText(const char* file, int line) {
    return fmt::format("{}:{}", fs::path(file).filename().string(), line);
  }

  // The source line of an inlined call in its caller; empty when the file does not tell it.
  static std::string CallSource(Dwarf_Die* unit, Dwarf_Die* inlined) {
    Dwarf_Attribute attribute;
    Dwarf_Word file = 0, line = 0;
    Dwarf_Files* files = nullptr;
    size_t count = 0;
    if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &attribute), &file) != 0 ||
        dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &attribute), &line) != 0 ||
        dwarf_getsrcfiles(unit, &files, &count) != 0 || file >= count) {
      return "";
    }
    const char* const name = dwarf_filesrc(files, file, nullptr, nullptr);
    return name == nullptr ? "" : SourceText(name, static_cast<int>(line));
  }

  static std::string LineSource(Dwarf_Die* unit, Dwarf_Addr address) {
    Dwarf_Line* const line = dwarf_getsrc_die(unit, address);
    int number = 0;
    const char* const name = line == nullptr ? nullptr : dwarf_linesrc(line, nullptr, nullptr);
    if (name == nullptr || dwarf_lineno(line, &number) != 0) return "";
    return SourceText(name, number);
  }

  // The source is a line of the program's own code: inlined calls of the C++ library are passed
  // over.
  void AddSource(Dwarf_Addr address, TextPool* pool, Frame* frame) const {
    Dwarf_Die unit;
    if (!FindUnit(address, &unit)) return;
    std::vector<Dwarf_Die> calls;
    FindInlined(&unit, address, &calls);
    std::string source = LineSource(&unit, address);
    bool own = false;
    for (size_t i = calls.size(); i-- > 0;) {
      own = AddInlined(&calls[i], pool, frame) || own;
      if (!own) source = CallSource(&unit, &calls[i]);
    }
    frame->source = pool->Intern(source);
  }

  // The calls that were inlined at an address, outermost first. (dwarf_getscopes does not look into
  // namespaces, where one of the compilers puts functions.)
  static bool FindInlined(Dwarf_Die* scope, Dwarf_Addr address, std::vector<Dwarf_Die>* calls) {
    Dwarf_Die child;
    int result = dwarf_child(scope, &child);
    for (; result == 0; result = dwarf_siblingof(&child, &child)) {
      switch (dwarf_tag(&child)) {
        case DW_TAG_namespace:
        case DW_TAG_class_type:
        case DW_TAG_structure_type:
          if (FindInlined(&child, address, calls)) return true;
          break;
        case DW_TAG_inlined_subroutine:
        case DW_TAG_subprogram:
        case DW_TAG_lexical_block:
          if (dwarf_haspc(&child, address) <= 0) break;
          if (dwarf_tag(&child) == DW_TAG_inlined_subroutine) calls->push_back(child);
          FindInlined(&child, address, calls);
          return true;
        default:
          break;
      }
    }
    return false;
  }

  // True when the function is the program's own.
  static bool AddInlined(Dwarf_Die* die, TextPool* pool, Frame* frame) {
    const char* const name = NameOf(die);
    if (name == nullptr) return false;
    const std::string function = Demangle(name);
    frame->inlined.push_back(pool->Intern(function));
    const std::string plain = PlainName(function);
    const Role role = RoleOf(function, plain);
    // Without a linkage name a lambda, and the C++ library's templates on it, have a bare name.
    const bool bare = function == "operator()" || function.substr(0, 2) == "__";
    const bool own = !bare && role == Role::kOwn && IsTelling(role, plain);
    if (own) frame->inlined_plain.push_back(pool->Intern(plain));
    return own;
  }

  // Not every compiler writes an index of addresses: this is one of all units.
  void IndexUnits() {
    Dwarf_Addr bias = 0;
    Dwarf* const dwarf = dwfl_module_getdwarf(module_, &bias);
    Dwarf_CU* unit = nullptr;
    Dwarf_Die die;
    while (dwarf != nullptr &&
           dwarf_get_units(dwarf, unit, &unit, nullptr, nullptr, &die, nullptr) == 0) {
      Dwarf_Addr base = 0, begin = 0, end = 0;
      std::ptrdiff_t offset = 0;
      while ((offset = dwarf_ranges(&die, offset, &base, &begin, &end)) > 0) {
        units_.push_back({begin, end, dwarf_dieoffset(&die)});
      }
    }
    std::sort(units_.begin(), units_.end(),
              [](const UnitRange& a, const UnitRange& b) { return a.begin < b.begin; });
  }

  // The unit with the code at an address of the file.
  bool FindUnit(Dwarf_Addr address, Dwarf_Die* unit) const {
    const auto next =
        std::upper_bound(units_.begin(), units_.end(), address,
                         [](Dwarf_Addr a, const UnitRange& range) { return a < range.begin; });
    if (next == units_.begin() || address >= std::prev(next)->end) return false;
    Dwarf_Addr bias = 0;
    return dwarf_offdie(dwfl_module_getdwarf(module_, &bias), std::prev(next)->die, unit) !=
           nullptr;
  }

  struct UnitRange {
    Dwarf_Addr begin;
    Dwarf_Addr end;
    Dwarf_Off die;
  };

  std::unique_ptr<Dwfl, decltype(&dwfl_end)> dwfl_;
  Dwfl_Module* module_ = nullptr;
  Dwarf_Addr bias_ = 0;           // libdwfl's addresses, which symbols have, minus the file's
  std::vector<UnitRange> units_;  // by their first address
};

}  // namespace

class Symbols::Impl {
 public:
  explicit Impl(std::vector<std::string> directories) : directories_(std::move(directories)) {}

  // The file of a map; null when there is none.
  const Module* ModuleOf(std::string_view map) {
    const auto [entry, added] = modules_.try_emplace(std::string(map));
    if (added) {
      const fs::path path = FindFile(map);
      if (!path.empty()) entry->second = std::make_unique<Module>(path);
    }
    return entry->second.get();
  }

 private:
  fs::path FindFile(std::string_view map) {
    if (map.empty() || map.front() != '/' || LeavesDirectory(map)) return {};
    const std::string name = MapName(map);
    const fs::path whole = fs::path(map).relative_path().parent_path() / name;
    for (const std::string& directory : directories_) {
      if (IsFile(directory / whole)) return directory / whole;
    }
    for (const std::string& directory : directories_) {
      if (IsFile(fs::path(directory) / name)) return fs::path(directory) / name;
    }
    if (!indexed_) IndexFiles();
    return MostAlike(paths_by_name_[name], whole);
  }

  // The path with the most directories like the map's, as "lib64"; the first by name of several,
  // and an empty one of none.
  static fs::path MostAlike(const std::vector<fs::path>& paths, const fs::path& map) {
    fs::path best;
    std::ptrdiff_t most = 0;
    for (const fs::path& path : paths) {
      const std::ptrdiff_t alike = CommonTail(path, map);
      if (alike < most || (alike == most && path > best)) continue;
      most = alike;
      best = path;
    }
    return best;
  }

  void IndexFiles() {
    indexed_ = true;
    std::error_code error;
    for (const std::string& directory : directories_) {
      fs::recursive_directory_iterator entry(directory,
                                             fs::directory_options::skip_permission_denied, error);
      for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (IsFile(entry->path())) {
          paths_by_name_[entry->path().filename()].push_back(entry->path());
        }
      }
    }
  }

  std::vector<std::string> directories_;
  std::unordered_map<std::string, std::unique_ptr<Module>> modules_;  // by their maps
  bool indexed_ = false;
  std::unordered_map<std::string, std::vector<fs::path>> paths_by_name_;
};

Symbols::Symbols(std::vector<std::string> directories)
    : impl_(std::make_unique<Impl>(std::move(directories))) {}

Symbols::~Symbols() = default;

void Symbols::Describe(TextPool* pool, Frame* frame) {
  const Module* const module = impl_->ModuleOf(frame->map);
  if (module != nullptr) module->Describe(pool, frame);
}

}  // namespace report
