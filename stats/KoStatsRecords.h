#pragma once
// Plain records of the capture statistics record: the key tables' rows, the capture summary the
// foreground fills for the writer, the segment list entries and the segment type codes.
#include <cstdint>

namespace android {

// One row of a key table: the value's name and the printf conversion it is printed with.
struct KoHeaderPair_t {
  const char* key;
  const char* format;
};

// Capture summary handed to the statistics writer.
struct KoGenFrameData_t {
  int32_t jobId;
  uint8_t bestShotEnabled;
  uint8_t videoEnabled;
  uint8_t bestShotGenerated;
  uint8_t hdrMode;
  uint8_t isLateMode;
  int32_t capturedFrameId;
  int32_t capturedFrameIndex;  // index of the captured frame in the snapshot, -1 unknown
  int32_t bestShotFrameIndex;  // snapshot index of the best shot, -1 none
  int32_t referenceFrameId;    // reference frame of the best-shot decision
  int32_t jpegReplace;
  int32_t camPosition;  // KO_cam_position_t
};

// Segment type codes: the four letters read big-endian; "..hd" is a header line, "..dt" data.
// Stored little-endian, so 'sshd' appears in the record as the bytes "dhss".
enum KoExifDataTypes : uint32_t {
  KO_EXIF_SESSION_HEADER = 0x73736864,    // 'sshd'
  KO_EXIF_SESSION_DATA = 0x73736474,      // 'ssdt'
  KO_EXIF_SEQUENCE_HEADER = 0x73716864,   // 'sqhd'
  KO_EXIF_SEQUENCE_DATA = 0x73716474,     // 'sqdt'
  KO_EXIF_FRAME_HEADER = 0x66726864,      // 'frhd'
  KO_EXIF_FRAME_DATA = 0x66726474,        // 'frdt'
  KO_EXIF_FACE_HEADER = 0x66616864,       // 'fahd'
  KO_EXIF_FACE_DATA = 0x66616474,         // 'fadt'
  KO_EXIF_HISTOGRAM_HEADER = 0x68676864,  // 'hghd'
  KO_EXIF_HISTOGRAM_DATA = 0x68676474,    // 'hgdt'
  KO_EXIF_RAW_HEADER = 0x72776864,        // 'rwhd'
  KO_EXIF_RAW_DATA = 0x72776474,          // 'rwdt'
};

// One entry of the segment list of an assembly. The wire form is size, type and version as
// little-endian uint32s (12 bytes), then size - 12 payload bytes.
struct KoDataSegments_t {
  uint32_t size;     // 12 + payload length
  uint32_t type;     // KoExifDataTypes
  uint32_t version;  // always 1
  const char* data;  // payload, not owned
};

enum : uint32_t {
  KO_EXIF_SEGMENT_HEADER_SIZE = 12,
  KO_EXIF_SEGMENT_VERSION = 1,
};

}  // namespace android
