// A frame's line, from frames of either shape that releases of the platform have.
#include <gtest/gtest.h>

#include "unwind/frame_fields.h"
#include "unwind/unwindstack_wrapper.h"

namespace {

class FrameText : public testing::Test {
 protected:
  FrameText() {
    fields_.num = 7;
    fields_.rel_pc = 0xabc;
    fields_.map_start = 0x10;
    fields_.map_end = 0x20;
    fields_.map_name = "/lib/x";
  }
  std::string Text() const { return ::FrameText(fields_, false); }

  FrameFields fields_;
};

TEST_F(FrameText, OfNoMappingIsUnknownWhateverItsName) {
  fields_.map_end = fields_.map_start;
  fields_.map_elf_start_offset = 0x1000;
  fields_.function_name = "_Z1fv";
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc (offset 0x1000)  <unknown> (_Z1fv)");
}

TEST_F(FrameText, OfAMappingWithoutANameHasItsStart) {
  fields_.map_name = "";
  fields_.map_start = 0;
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc  <anonymous:0>");
  fields_.map_start = 0x1f;
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc  <anonymous:1f>");
}

TEST_F(FrameText, HasTheMangledFunctionAndItsOffsetWhereThereIsOne) {
  fields_.function_offset = 1;
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc  /lib/x");
  fields_.function_name = "_Z1fv";
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc  /lib/x (_Z1fv+1)");
  fields_.function_offset = 0;
  EXPECT_EQ(Text(), "  #07 pc 0000000000000abc  /lib/x (_Z1fv)");
}

TEST_F(FrameText, Of32BitsHasAShortPc) {
  fields_.num = 100;
  EXPECT_EQ(::FrameText(fields_, true), "  #100 pc 00000abc  /lib/x");
}

TEST_F(FrameText, IsEmptyBeyondTheFrames) {
  unwindstack_wrapper unwinder;
  EXPECT_EQ(unwinder.frame_string(0), "");
  auto& frame = unwinder.frames.emplace_back();
  frame.rel_pc = 0xabc;
  frame.map_name = "/lib/x";
  frame.map_end = 1;
  frame.map_elf_start_offset = 0x1000;
  frame.function_name = "f";
  frame.function_offset = 3;
  unwinder.num_frames = 1;
  EXPECT_EQ(unwinder.frame_string(0), "  #00 pc 0000000000000abc (offset 0x1000)  /lib/x (f+3)");
  EXPECT_EQ(unwinder.frame_string(1), "");
}

// As the platform's headers have it from release 13 on.
struct MapInfo13 {
  uint64_t start() const { return 0x10; }
  uint64_t end() const { return 0x20; }
  std::string name() const { return "/lib/y"; }
  uint64_t elf_start_offset() const { return 0x1000; }
};
struct Frame13 : FrameFields {
  std::shared_ptr<MapInfo13> map_info;
};

TEST_F(FrameText, OfALaterPlatformsFrameReachesTheMappingThroughItsMapInfo) {
  Frame13 frame{fields_, nullptr};
  EXPECT_EQ(::FrameText(MakeFrameFields(frame), false), "  #07 pc 0000000000000abc  <unknown>");
  frame.map_info = std::make_shared<MapInfo13>();
  EXPECT_EQ(::FrameText(MakeFrameFields(frame), false),
            "  #07 pc 0000000000000abc (offset 0x1000)  /lib/y");
}

}  // namespace
