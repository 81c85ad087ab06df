#include "symbols.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <fmt/format.h>
#include <stdlib.h>

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
  }

  void Describe(TextPool* pool, Frame* frame) const {
    if (module_ == nullptr) return;
    const Dwarf_Addr address = frame->pc + bias_;
    AddName(address, pool, frame);
    AddSource(address, pool, frame);
    AddInlined(address, pool, frame);
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

  void AddSource(Dwarf_Addr address, TextPool* pool, Frame* frame) const {
    Dwfl_Line* const line = dwfl_module_getsrc(module_, address);
    int number = 0;
    const char* const file = line == nullptr
                                 ? nullptr
                                 : dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
    if (file == nullptr) return;
    frame->source = pool->Intern(fmt::format("{}:{}", fs::path(file).filename().string(), number));
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

  void AddInlined(Dwarf_Addr address, TextPool* pool, Frame* frame) const {
    Dwarf_Addr bias = 0;
    Dwarf_Die* const unit = dwfl_module_addrdie(module_, address, &bias);
    Dwarf_Die* found = nullptr;
    if (unit == nullptr || dwarf_getscopes(unit, address - bias, &found) <= 0) return;
    Dwarf_Die innermost = found[0];
    free(found);
    Dwarf_Die* scopes = nullptr;
    const int count = dwarf_getscopes_die(&innermost, &scopes);
    for (int i = 0; i < count && dwarf_tag(&scopes[i]) != DW_TAG_subprogram; ++i) {
      if (dwarf_tag(&scopes[i]) != DW_TAG_inlined_subroutine) continue;
      const char* const name = NameOf(&scopes[i]);
      if (name == nullptr) continue;
      const std::string function = Demangle(name);
      frame->inlined.push_back(pool->Intern(function));
      Frame as_frame;
      as_frame.function = frame->inlined.back();
      as_frame.plain = pool->Intern(PlainName(function));
      if (RoleOf(as_frame) == Role::kOwn) frame->inlined_plain.push_back(as_frame.plain);
    }
    if (count > 0) free(scopes);
  }

  std::unique_ptr<Dwfl, decltype(&dwfl_end)> dwfl_;
  Dwfl_Module* module_ = nullptr;
  Dwarf_Addr bias_ = 0;
};

}  // namespace

class Symbols::Impl {
 public:
  explicit Impl(std::vector<std::string> directories) : directories_(std::move(directories)) {}

  // The file of a map; null when there is none.
  const Module* ModuleOf(std::string_view map) {
    const auto [entry, added] = modules_.try_emplace(map);
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
    const auto found = path_by_name_.find(name);
    return found == path_by_name_.end() ? fs::path() : found->second;
  }

  void IndexFiles() {
    indexed_ = true;
    std::error_code error;
    for (const std::string& directory : directories_) {
      fs::recursive_directory_iterator entry(directory,
                                             fs::directory_options::skip_permission_denied, error);
      for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (IsFile(entry->path()))
          path_by_name_.try_emplace(entry->path().filename(), entry->path());
      }
    }
  }

  std::vector<std::string> directories_;
  std::unordered_map<std::string_view, std::unique_ptr<Module>> modules_;
  bool indexed_ = false;
  std::unordered_map<std::string, fs::path> path_by_name_;
};

Symbols::Symbols(std::vector<std::string> directories)
    : impl_(std::make_unique<Impl>(std::move(directories))) {}

Symbols::~Symbols() = default;

void Symbols::Describe(TextPool* pool, Frame* frame) {
  const Module* const module = impl_->ModuleOf(frame->map);
  if (module != nullptr) module->Describe(pool, frame);
}

}  // namespace report
