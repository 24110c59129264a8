#pragma once
// Motion photos: a JPEG still with a short MP4 clip appended after its end, described by XMP
// metadata inside the JPEG (Motion Photo 1.0 layout), so that gallery apps show the still and
// play the clip.
//
// File layout:  SOI, [APP0 JFIF / APP1 Exif], APP1 XMP, rest of the JPEG ... EOI, MP4 bytes.
// The XMP sets Camera:MotionPhoto=1, Camera:MotionPhotoVersion=1, the still's presentation
// time inside the clip, and a Container:Directory of two items: the primary JPEG (length 0,
// padding 0) and the MP4 (its byte count). A reader finds the clip at file size minus that
// count.
#include <cstdint>
#include <string>
#include <vector>

namespace kovane_replay {

class MotionPhoto {
 public:
  // One entry of the container directory, in file order.
  struct Item {
    std::string mime;       // e.g. "image/jpeg", "video/mp4"
    std::string semantic;   // "Primary", "MotionPhoto", ...
    int64_t length = 0;     // bytes; 0 for the primary (it runs up to the next item)
    int64_t padding = 0;    // bytes between this item's data and the next item
  };

  // What parse() reads back.
  struct Info {
    int motionPhoto = 0;                  // Camera:MotionPhoto
    int version = 0;                      // Camera:MotionPhotoVersion
    int64_t presentationTimestampUs = -1; // -1: unknown or absent
    std::vector<Item> items;
    int64_t fileSize = 0;
    int64_t primaryEnd = 0;   // offset just past the primary JPEG's EOI marker
    int64_t videoOffset = 0;  // where the MotionPhoto item starts (file size minus the lengths
    int64_t videoLength = 0;  // of it and of every item after it)
  };

  // Builds a motion photo in memory. `jpeg` must be a whole JPEG (SOI ... EOI), `mp4` a whole
  // MP4 (a chain of boxes starting with ftyp). An XMP packet already in the JPEG is replaced
  // and anything after its EOI dropped. `presentationTimestampUs` is the still's time inside
  // the clip, or -1 when unknown. False with a one-line reason in *error.
  static bool compose(const std::vector<uint8_t>& jpeg, const std::vector<uint8_t>& mp4,
                      int64_t presentationTimestampUs, std::vector<uint8_t>& out, std::string* error);

  // Reads the two files and writes the motion photo to `outPath`, through a temporary file in
  // the same folder that is renamed into place: on failure nothing is left at `outPath`
  // (an existing file there is kept as it was).
  static bool write(const std::string& jpegPath, const std::string& mp4Path, int64_t presentationTimestampUs,
                    const std::string& outPath, std::string* error);

  // Reads a motion photo back: its XMP fields and where the clip lies. False with a one-line
  // reason when the bytes are not a JPEG, carry no motion-photo XMP, or the directory does not
  // match the file (no MotionPhoto item, lengths beyond the file, no MP4 at the clip's offset,
  // the picture overlapping the clip).
  static bool parse(const std::vector<uint8_t>& bytes, Info* out, std::string* error);
  static bool parse(const std::string& path, Info* out, std::string* error);

  // The XMP packet of a JPEG (the text after the APP1 XMP header), or "" when it has none.
  static std::string xmpPacket(const std::vector<uint8_t>& jpeg);
};

}  // namespace kovane_replay
