// The pictures of a media file one by one, found by decoding all of them.
#ifndef DEVICE_TESTING_PICTURE_PROBE_H_
#define DEVICE_TESTING_PICTURE_PROBE_H_

#include <ostream>
#include <string>
#include <vector>

namespace device::testing {

struct SeenPicture {
  double seconds;  // its time in the file
  int width;
  int height;
};

// Pictures of one size, one behind the other.
struct PictureRun {
  int width;
  int height;
  int pictures;
  int fps;  // that most of them keep to

  friend bool operator==(const PictureRun&, const PictureRun&) = default;
};
std::ostream& operator<<(std::ostream& out, const PictureRun& run);

// In the order in which they are shown. What can't be decoded ends the list. Waits 30 s at most. gst_init() must have
// run.
std::vector<SeenPicture> ProbePictures(const std::string& path);

std::vector<PictureRun> RunsOf(const std::vector<SeenPicture>& pictures);

}  // namespace device::testing

#endif  // DEVICE_TESTING_PICTURE_PROBE_H_
