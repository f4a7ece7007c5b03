// make_sample_clip PATH: writes a clip of 20 s, 640x360, with a moving picture and a tone, to try a player on.
#include <gst/gst.h>

#include <cstdio>
#include <exception>

#include "playd/tools/sample_clip.h"

int main(int argc, char** argv) {
  if (argc != 2 || argv[1][0] == '-') {
    std::fprintf(stderr,
                 "usage: make_sample_clip PATH\nWrites a sample clip (MP4, 20 s, 640x360, with sound) to PATH.\n");
    return 2;
  }
  gst_init(nullptr, nullptr);
  int status = 0;
  try {
    playd::MakeSampleClip(argv[1], playd::SampleClip());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_sample_clip: %s\n", error.what());
    status = 1;
  }
  gst_deinit();
  return status;
}
