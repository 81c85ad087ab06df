#include "folded_output.h"

#include <algorithm>

#include "kernel_line.h"

namespace report {
namespace {

// An element must not hold what separates elements.
void AddElement(std::string_view name, std::string* stack) {
  if (!stack->empty()) *stack += ';';
  const size_t begin = stack->size();
  *stack += name;
  std::replace(stack->begin() + static_cast<std::ptrdiff_t>(begin), stack->end(), ';', ':');
}

// The stack of a thread; its kernel's where there is no user stack, marked as flame graphs do.
std::string StackOf(std::string_view program, const Thread& thread) {
  std::string stack;
  AddElement(program, &stack);
  AddElement(thread.watched ? "watched" : "other", &stack);
  for (size_t i = thread.user.size(); i-- > 0;) AddElement(thread.user[i]->label, &stack);
  if (!thread.user.empty()) return stack;
  for (size_t i = thread.kernel.size(); i-- > 0;) {
    AddElement(std::string(KernelFunction(thread.kernel[i])) + "_[k]", &stack);
  }
  if (thread.kernel.empty()) AddElement("[no stack]", &stack);
  return stack;
}

}  // namespace

void FoldedStacks::Add(const Incident& incident) {
  const std::string_view program = incident.program.value_or("[unknown]");
  for (const Thread& thread : incident.threads) ++counts_[StackOf(program, thread)];
}

void FoldedStacks::Write(std::ostream* out) const {
  for (const auto& [stack, count] : counts_) *out << stack << ' ' << count << '\n';
}

}  // namespace report
