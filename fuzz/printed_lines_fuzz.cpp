// Lines printed into an incident, against a plain model of its buffer.

#include <android/log.h>
#include <fcntl.h>
#include <quorvel/quorvel.h>

#include "fuzz.h"
#include "log/quorvel_log.h"

namespace {

struct Model {
  std::string buffer;
  bool open = false, wanted = true;

  void Print(std::string line) {
    if (line.size() < 2 || line.size() > 1022 || !open || !wanted) return;
    if (line.back() != '\n') line += '\n';
    if (buffer.size() + line.size() <= 4095) buffer += line;
  }
};

void Step(Input* input, Model* model) {
  static const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const uint8_t kind = input->Take<uint8_t>();
  if (kind == 255) {
    QuorvelBeginLog(model->wanted = !model->wanted);
    model->buffer.clear();
  } else if (kind == 254) {
    QuorvelSetLogFd((model->open = !model->open) ? fd : -1);
  } else if (kind == 253) {
    QuorvelFlushLog();
  } else {
    std::string line = input->TakeText();
    line.insert(line.size() / 2, kind * 5u, 'x');  // long ones hardly come by themselves
    QuorvelPrintLine("%s", line.c_str());
    model->Print(line);
  }
  CLAIM(QuorvelLogLength() == model->buffer.size() && model->buffer == QuorvelLogText());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  __android_log_set_logger([](const __android_log_message*) {});
  Model model;
  QuorvelSetLogFd(-1);
  QuorvelBeginLog(QUORVEL_FLAG_LOG);
  for (Input input{data, size}; input.size > 0;) Step(&input, &model);
  return 0;
}
