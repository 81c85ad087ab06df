#include "process_maps.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include <unwindstack/Maps.h>

#include "interned_text.h"
#include "no_cancellation.h"
#include "pages.h"

namespace unwindstack {
namespace {

// The kernel's PROCMAP_QUERY for one mapping (since 6.11), which older headers do not declare.
struct ProcmapQuery {
  uint64_t size;
  uint64_t query_flags;
  uint64_t query_addr;
  uint64_t vma_start, vma_end;
  uint64_t vma_flags;
  uint64_t vma_page_size;
  uint64_t vma_offset;
  uint64_t inode;
  uint32_t dev_major, dev_minor;
  uint32_t vma_name_size;
  uint32_t build_id_size;
  uint64_t vma_name_addr;
  uint64_t build_id_addr;
};
static_assert(sizeof(ProcmapQuery) == 104, "the kernel's layout");
constexpr unsigned long kProcmapQuery = _IOWR('f', 17, ProcmapQuery);
constexpr uint64_t kCoveringOrNext = 0x10;  // PROCMAP_QUERY_COVERING_OR_NEXT_VMA
constexpr uint64_t kVmaRead = 1, kVmaWrite = 2, kVmaExecute = 4;  // PROCMAP_QUERY_VMA_*

constexpr size_t kFirstTextCapacity = 256 * 1024;
constexpr size_t kMaxTextCapacity = 256 * 1024 * 1024;

int OpenMaps(const char* path) {
  int fd;
  do {
    fd = open(path, O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Removes a number and the character after it from the front of `text`. At the end of the text a
// blank may be missing: a line without a name need not end with one.
bool ConsumeNumber(std::string_view* text, unsigned base, char after, uint64_t* value) {
  uint64_t result = 0;
  size_t i = 0;
  for (; i < text->size() && (*text)[i] != after; ++i) {
    const char c = (*text)[i];
    const unsigned digit = c >= '0' && c <= '9'   ? static_cast<unsigned>(c - '0')
                           : c >= 'a' && c <= 'f' ? static_cast<unsigned>(c - 'a' + 10)
                                                  : base;
    if (digit >= base || result > (UINT64_MAX - digit) / base) return false;
    result = result * base + digit;
  }
  if (i == 0 || (i == text->size() && after != ' ')) return false;
  text->remove_prefix(std::min(i + 1, text->size()));
  *value = result;
  return true;
}

// start-end perms offset major:minor inode   name
bool ParseLine(std::string_view line, Mapping* entry) {
  uint64_t major, minor;
  if (!ConsumeNumber(&line, 16, '-', &entry->start) ||
      !ConsumeNumber(&line, 16, ' ', &entry->end) || entry->start >= entry->end ||
      line.size() < 5 || line[4] != ' ') {
    return false;
  }
  entry->prot = (line[0] == 'r' ? PROT_READ : 0) | (line[1] == 'w' ? PROT_WRITE : 0) |
                (line[2] == 'x' ? PROT_EXEC : 0);
  line.remove_prefix(5);
  if (!ConsumeNumber(&line, 16, ' ', &entry->offset) || !ConsumeNumber(&line, 16, ':', &major) ||
      !ConsumeNumber(&line, 16, ' ', &minor) || !ConsumeNumber(&line, 10, ' ', &entry->inode)) {
    return false;
  }
  entry->dev_major = static_cast<uint32_t>(major);
  entry->dev_minor = static_cast<uint32_t>(minor);
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  entry->name = line;
  entry->text = nullptr;
  return true;
}

// The name as the list's text would have it.
const InternedText* InternEscaped(std::string_view name) {
  if (name.find('\n') == name.npos) return Intern(name);
  char escaped[PATH_MAX + 4];
  size_t length = 0;
  for (const char c : name) {
    if (length + 4 > sizeof(escaped)) break;
    if (c == '\n') {
      memcpy(escaped + length, "\\012", 4);
      length += 4;
    } else {
      escaped[length++] = c;
    }
  }
  return Intern({escaped, length});
}

}  // namespace

size_t ParseMapsText(std::string_view text, Mapping* entries, size_t capacity) {
  size_t count = 0;
  while (!text.empty() && count < capacity) {
    const size_t length = std::min(text.find('\n'), text.size());
    Mapping* const entry = &entries[count];
    if (ParseLine(text.substr(0, length), entry) &&
        (count == 0 || entry->start >= entries[count - 1].end)) {
      ++count;
    }
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return count;
}

Maps::~Maps() {
  Release();
}

LocalMaps::~LocalMaps() = default;

void Maps::Release() {
  const NoCancellation scope;
  if (fd_ >= 0) close(fd_);
  UnmapPages(text_, text_capacity_);
  UnmapPages(entries_, entry_capacity_ * sizeof(Mapping));
  fd_ = -1;
  text_ = nullptr;
  entries_ = nullptr;
  text_capacity_ = entry_capacity_ = entry_count_ = 0;
}

bool Maps::Parse() {
  const NoCancellation scope;
  Release();
  // /proc/self shows the list of the first thread, which is empty once that thread has ended.
  for (const char* path : {"/proc/self/maps", "/proc/thread-self/maps"}) {
    fd_ = OpenMaps(path);
    if (fd_ < 0) continue;
    Mapping first;
    if (Query(0, kCoveringOrNext, &first)) return true;
    const bool read = ReadText();
    close(fd_);
    fd_ = -1;
    if (read) return true;
    Release();
  }
  return false;
}

bool Maps::Query(uint64_t addr, uint64_t flags, Mapping* result) {
  char name[PATH_MAX] = "";
  ProcmapQuery query = {};
  query.size = sizeof(query);
  query.query_flags = flags;
  query.query_addr = addr;
  query.vma_name_addr = reinterpret_cast<uint64_t>(name);
  query.vma_name_size = sizeof(name);
  int rc = ioctl(fd_, kProcmapQuery, &query);
  if (rc != 0 && errno == ENAMETOOLONG) {
    query.vma_name_addr = query.vma_name_size = 0;
    rc = ioctl(fd_, kProcmapQuery, &query);
  }
  if (rc != 0) return false;
  result->start = query.vma_start;
  result->end = query.vma_end;
  result->offset = query.vma_offset;
  result->inode = query.inode;
  result->dev_major = query.dev_major;
  result->dev_minor = query.dev_minor;
  result->prot = (query.vma_flags & kVmaRead ? PROT_READ : 0) |
                 (query.vma_flags & kVmaWrite ? PROT_WRITE : 0) |
                 (query.vma_flags & kVmaExecute ? PROT_EXEC : 0);
  result->text = InternEscaped({name, query.vma_name_size ? strnlen(name, sizeof(name)) : 0});
  result->name = result->text ? std::string_view(result->text->c_str(), result->text->length)
                              : std::string_view();
  return true;
}

// Reads the whole list. Its length is not known before its end has been read.
bool Maps::ReadText() {
  size_t size = 0;
  for (;;) {
    if (size == text_capacity_) {
      const size_t capacity = std::max(kFirstTextCapacity, text_capacity_ * 2);
      char* const text =
          capacity > kMaxTextCapacity ? nullptr : static_cast<char*>(MapPages(capacity));
      if (text == nullptr) return false;
      if (size > 0) memcpy(text, text_, size);
      UnmapPages(text_, text_capacity_);
      text_ = text;
      text_capacity_ = capacity;
    }
    const ssize_t got = read(fd_, text_ + size, text_capacity_ - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  entry_capacity_ = static_cast<size_t>(std::count(text_, text_ + size, '\n')) + 1;
  entries_ = static_cast<Mapping*>(MapPages(entry_capacity_ * sizeof(Mapping)));
  if (entries_ == nullptr) return false;
  entry_count_ = ParseMapsText({text_, size}, entries_, entry_capacity_);
  return entry_count_ > 0;
}

bool FindMapping(Maps* maps, uint64_t addr, Mapping* result) {
  return maps->Find(addr, result);
}

bool Maps::Find(uint64_t addr, Mapping* result) {
  if (fd_ >= 0) return Query(addr, 0, result);
  Mapping* const end = entries_ + entry_count_;
  Mapping* entry =
      std::upper_bound(entries_, end, addr,
                       [](uint64_t value, const Mapping& mapping) { return value < mapping.end; });
  if (entry == end || addr < entry->start) return false;
  *result = *entry;
  result->text = Intern(entry->name);
  return true;
}

}  // namespace unwindstack
