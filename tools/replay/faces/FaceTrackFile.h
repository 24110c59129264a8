#pragma once
// Face records of a clip as a CSV file: what `--faces FILE.csv` reads and what the face cache
// stores.
//
//   # kovane-replay faces
//   # frames: 1337
//   frame,id,score,left,top,width,height,leftEyeX,leftEyeY,rightEyeX,rightEyeY,mouthX,mouthY,leftBlink,rightBlink,smile,leftEar,rightEar,mouthRatio
//   0,1,87,158,123,104,105,235,155,187,154,210,208,3,0,0,0.2841,0.2593,0.7712
//   ...
//
// One row per face per frame; a frame without faces has no rows. Lines starting with '#' are
// comments; those of the form "# key: value" carry information about the file, and the key
// "frames" gives the clip's frame count so that trailing frames without faces are kept (without
// it the last frame with a face ends the clip). The header row names the columns; their order
// is free, each must be there once. Integers are pixels of the preview size and degrees 0..100;
// leftEar, rightEar and mouthRatio are the measurements (0 when unknown). "Left" is the
// subject's left. Blank lines and Windows line ends are accepted.
#include <string>
#include <utility>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class FaceTrackFile {
 public:
  using Meta = std::vector<std::pair<std::string, std::string>>;  // "# key: value" lines

  // Largest frame count a file may declare or use (about 11 hours at 25 fps); guards against
  // a typo allocating gigabytes.
  static constexpr int kMaxFrames = 1000000;

  // The column names in the order they are written.
  static const std::vector<std::string>& columns();

  // The file's text. The frame count written is faces.size().
  static std::string format(const ClipFaces& faces, const Meta& meta = {});
  // Reads the text; `name` prefixes error messages ("name:line: what"). False with a one-line
  // reason; `out` is then empty.
  static bool parse(const std::string& text, const std::string& name, ClipFaces& out,
                    std::string* error, Meta* meta = nullptr);

  // Writes the file (through a temporary file and a rename, so readers never see half of it).
  static bool write(const std::string& path, const ClipFaces& faces, std::string* error,
                    const Meta& meta = {});
  static bool read(const std::string& path, ClipFaces& out, std::string* error,
                   Meta* meta = nullptr);

  // The value of a key in meta, or "" when absent.
  static std::string metaValue(const Meta& meta, const std::string& key);
};

}  // namespace kovane_replay
