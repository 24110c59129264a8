#pragma once
// Records and callback types that cross the public interface of KoEngine. The camera stack
// fills them and passes pointers; the engine copies what must outlive a call. All records are
// plain structures with natural alignment; their sizes and offsets are checked below, for the
// 32-bit device and for a 64-bit host.
#include <cstddef>
#include <cstdint>

namespace android {

// Colour format 2: YCrCb 4:2:0 semi-planar (luma plane, then interleaved V,U pairs, "NV21").
enum { KO_COLOR_FORMAT_NV21 = 2 };
// Stream types: 1 preview (face coordinates refer to it), 3 video.
enum { KO_STREAM_TYPE_PREVIEW = 1, KO_STREAM_TYPE_VIDEO = 3 };

// Records that hold pointers are laid out differently on the 32-bit device and on a 64-bit
// host; their layout checks give both: KO_layout(a, b) is a on a 32-bit target, b on a 64-bit one.
constexpr size_t KO_layout(size_t ilp32, size_t lp64) { return sizeof(void*) == 4 ? ilp32 : lp64; }

// Seconds and nanoseconds of an EXIF time stamp; 8 bytes on every target.
struct KO_timespec_t {
  int32_t sec;
  int32_t nsec;
};
static_assert(sizeof(KO_timespec_t) == 8, "EXIF time stamp is two words");

// Engine-wide configuration, given to the constructor and to configEngine.
struct KO_KoEngineConfig_t {
  bool bestShotEnable;  // best-shot selection allowed for captures
  bool videoEnable;     // video clip around a capture allowed
  bool auxEnable;       // when false, feature bit 0x2 is cleared
};
static_assert(sizeof(KO_KoEngineConfig_t) == 3, "configuration is three flags");

// Camera position; the foreground handler tests for the front camera (1).
enum KO_cam_position_t : int32_t {
  KO_CAM_POSITION_BACK = 0,
  KO_CAM_POSITION_FRONT = 1,
};
static_assert(sizeof(KO_cam_position_t) == 4, "camera position is one word");

struct KO_TakePicture_t {
  int32_t jobId;        // caller's capture job id, the key of every later callback
  int32_t frameId;      // frame id of the shutter frame
  int64_t timeStamp;    // shutter time stamp
  int32_t orientation;  // image orientation in degrees
  int32_t videoFd;      // receives the clip; negative turns the clip off for this capture
  int32_t metadataFd;   // receives the capture's metadata output
  void* config;         // caller's opaque per-capture configuration
  uint32_t configSize;  // its length in bytes
  bool bestShotEnable;
  bool videoEnable;
  bool hdrMode;
  KO_timespec_t exifTs;
};
static_assert(sizeof(KO_TakePicture_t) == KO_layout(48, 56), "take-picture record size");
static_assert(offsetof(KO_TakePicture_t, timeStamp) == 8, "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, orientation) == 16, "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, videoFd) == 20, "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, metadataFd) == 24, "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, config) == KO_layout(28, 32), "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, configSize) == KO_layout(32, 40), "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, bestShotEnable) == KO_layout(36, 44), "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, videoEnable) == KO_layout(37, 45), "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, hdrMode) == KO_layout(38, 46), "take-picture layout");
static_assert(offsetof(KO_TakePicture_t, exifTs) == KO_layout(40, 48), "take-picture layout");

struct KO_ZslFrameData_t {
  void* buffer;  // the camera's ZSL buffer handle; handed back through the frame-done callback
  uint32_t frameId;
};
static_assert(sizeof(KO_ZslFrameData_t) == KO_layout(8, 16), "ZSL record is copied whole");
static_assert(offsetof(KO_ZslFrameData_t, frameId) == KO_layout(4, 8), "ZSL record layout");

// Five camera values that come with each metadata frame.
struct Ko_CameraMetaData_t {
  int32_t luxLevel;
  int32_t aecState;
  int32_t awbState;
  float luxIdx;
  float expTime;
};
static_assert(sizeof(Ko_CameraMetaData_t) == 20, "camera metadata is five words");

struct KO_MetaFrameData_t {
  uint32_t frameId;
  uint8_t* data;  // the camera's raw metadata bytes
  uint32_t size;  // length of data
  Ko_CameraMetaData_t camMeta;
};
static_assert(sizeof(KO_MetaFrameData_t) == KO_layout(32, 40), "metadata record size");
static_assert(offsetof(KO_MetaFrameData_t, data) == KO_layout(4, 8), "metadata record layout");
static_assert(offsetof(KO_MetaFrameData_t, size) == KO_layout(8, 16), "metadata record layout");
static_assert(offsetof(KO_MetaFrameData_t, camMeta) == KO_layout(12, 20), "metadata record layout");

// Layout of one plane of a camera frame buffer.
struct KO_cam_plane_t {
  int32_t len;
  int32_t offset;
  int32_t stride;
  int32_t scanline;
};

struct KO_cam_frame_len_offset_t {
  uint32_t numPlanes;
  KO_cam_plane_t mp[3];
  uint32_t frameLen;
};
static_assert(sizeof(KO_cam_frame_len_offset_t) == 56, "plane layout size");

// Auto-focus metadata of a preview frame; the window is stored unaligned, little-endian.
struct __attribute__((packed)) KO_dex_af_metadata_t {
  int8_t lensPosition;
  uint16_t roiX;
  uint16_t roiY;
  uint16_t roiDx;
  uint16_t roiDy;
  uint8_t roiType;
};
static_assert(sizeof(KO_dex_af_metadata_t) == 10, "AF metadata is packed");

struct KO_PreviewFrameData_t {
  int64_t timeStamp;  // microseconds of the monotonic clock
  uint32_t frameId;
  uint32_t streamType;  // KO_STREAM_TYPE_PREVIEW or KO_STREAM_TYPE_VIDEO
  int32_t width;
  int32_t height;
  uint8_t* data;         // luma plane start; chroma follows as the plane layout says
  uint32_t colorFormat;  // KO_COLOR_FORMAT_NV21
  KO_cam_frame_len_offset_t* planes;
  uint32_t zoom;
  int32_t orientation;
  int16_t cafState;
  KO_dex_af_metadata_t* afMetadata;  // may be null
};
// Copied whole into the preview message.
static_assert(sizeof(KO_PreviewFrameData_t) == KO_layout(56, 72), "preview record size");
static_assert(offsetof(KO_PreviewFrameData_t, frameId) == 8, "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, streamType) == 12, "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, width) == 16, "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, height) == 20, "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, data) == 24, "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, colorFormat) == KO_layout(28, 32), "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, planes) == KO_layout(32, 40), "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, zoom) == KO_layout(36, 48), "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, orientation) == KO_layout(40, 52), "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, cafState) == KO_layout(44, 56), "preview record layout");
static_assert(offsetof(KO_PreviewFrameData_t, afMetadata) == KO_layout(48, 64), "preview record layout");

// One detected face. Coordinates refer to the preview stream's full size.
struct KO_cam_face_t {
  int32_t id;
  int8_t score;  // confidence 0..100
  int32_t left;
  int32_t top;
  int32_t width;
  int32_t height;
  int32_t reserved;
  int32_t leftEyeX;
  int32_t leftEyeY;
  int32_t rightEyeX;
  int32_t rightEyeY;
  int32_t mouthX;
  int32_t mouthY;
  uint8_t smileDegree;  // 0..100
  uint8_t smileConfidence;
  uint8_t recognised;
  int8_t gazeAngle;
  int8_t upDownDir;
  int8_t leftRightDir;
  int8_t rollDir;
  int8_t leftRightGaze;
  int8_t topBottomGaze;
  uint8_t blinkDetected;
  uint8_t leftBlink;   // 0 open .. 100 closed
  uint8_t rightBlink;  // 0 open .. 100 closed
};
static_assert(sizeof(KO_cam_face_t) == 64, "face entry size");
static_assert(offsetof(KO_cam_face_t, score) == 4, "face score offset");
static_assert(offsetof(KO_cam_face_t, left) == 8, "face rectangle offset");
static_assert(offsetof(KO_cam_face_t, leftEyeX) == 28, "face landmark offset");
static_assert(offsetof(KO_cam_face_t, smileDegree) == 52, "face smile offset");
static_assert(offsetof(KO_cam_face_t, blinkDetected) == 61, "face blink offset");

enum { KO_MAX_FACES = 5 };

// Face-detection results of one frame. A record that claims more than KO_MAX_FACES faces is
// bad input: readers clamp to the entries present.
struct KO_cam_face_detection_data_t {
  uint32_t frameId;  // 0: no face record given
  uint32_t numFaces;
  KO_cam_face_t faces[KO_MAX_FACES];
  int32_t reserved;
};
static_assert(sizeof(KO_cam_face_detection_data_t) == 332, "face record size");

// Number of usable face entries of a record, clamped to the entries it can hold.
inline uint32_t KO_faceCount(const KO_cam_face_detection_data_t* rec) {
  if (!rec) return 0;
  return rec->numFaces > KO_MAX_FACES ? static_cast<uint32_t>(KO_MAX_FACES) : rec->numFaces;
}

// One motion-sensor sample: the event's time stamp and its first three values.
struct KO_sensorSample_t {
  int64_t timeStamp;
  float x;
  float y;
  float z;
};

// The sensor block of a frame: the newest sample of each sensor and which sensors are on,
// in the order accelerometer, gyroscope, orientation, magnetic field.
struct KO_sensorData_t {
  KO_sensorSample_t accel;
  KO_sensorSample_t gyro;
  KO_sensorSample_t orient;
  KO_sensorSample_t magnetic;
  uint8_t enabled[4];
};
static_assert(sizeof(KO_sensorData_t) == 104, "sensor block size");

// The two parameters handleGetParameters reports.
struct KO_getParams_t {
  int32_t param1;
  int32_t param2;
};
static_assert(sizeof(KO_getParams_t) == 8, "parameters are two words");

// Handed to the best-shot-done callback for the duration of the call.
struct KO_bestShotDone_cb_t {
  uint32_t frameId;       // chosen frame
  void* zslBuffer;        // the camera's handle of the chosen frame's ZSL buffer
  void* configData;       // the capture's configuration copy
  uint32_t configSize;
  void* metaData;         // the chosen frame's camera metadata
  uint32_t metaSize;
  void* exifData;         // EXIF history block, or null
  uint32_t exifSize;      // its length, header included; 0 when null
  KO_timespec_t exifTs;
  int32_t captureOffsetUs;
  bool replace;
  uint8_t* yPlane;        // the chosen frame's downscaled image
  uint8_t* uPlane;
  uint8_t* vPlane;
  int32_t width;
  int32_t stride;
  int32_t height;
  int32_t chromaWidth;
  int32_t chromaStride;
  int32_t chromaHeight;
  uint32_t algBitField;
  int32_t resultCookie;
};
static_assert(sizeof(KO_bestShotDone_cb_t) == KO_layout(92, 136), "best-shot result size");
static_assert(offsetof(KO_bestShotDone_cb_t, zslBuffer) == KO_layout(4, 8), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, configData) == KO_layout(8, 16), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, configSize) == KO_layout(12, 24), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, metaData) == KO_layout(16, 32), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, metaSize) == KO_layout(20, 40), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, exifData) == KO_layout(24, 48), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, exifSize) == KO_layout(28, 56), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, exifTs) == KO_layout(32, 60), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, captureOffsetUs) == KO_layout(40, 68), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, replace) == KO_layout(44, 72), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, yPlane) == KO_layout(48, 80), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, uPlane) == KO_layout(52, 88), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, vPlane) == KO_layout(56, 96), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, width) == KO_layout(60, 104), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, chromaHeight) == KO_layout(80, 124), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, algBitField) == KO_layout(84, 128), "best-shot result layout");
static_assert(offsetof(KO_bestShotDone_cb_t, resultCookie) == KO_layout(88, 132), "best-shot result layout");

// Handed to the statistics callback at take picture.
struct KO_statistics_cb_t {
  void* data;     // EXIF history block
  uint32_t size;  // its length, header included
  KO_timespec_t exifTs;
};
static_assert(sizeof(KO_statistics_cb_t) == KO_layout(16, 24), "statistics record size");
static_assert(offsetof(KO_statistics_cb_t, size) == KO_layout(4, 8), "statistics record layout");
static_assert(offsetof(KO_statistics_cb_t, exifTs) == KO_layout(8, 12), "statistics record layout");

// Opaque 32-byte parameter record of the data protection wrappers.
struct KO_SecureDataParams_t {
  uint8_t opaque[32];
};
static_assert(sizeof(KO_SecureDataParams_t) == 32, "secure data parameters size");

// The six callbacks; every call passes the constructor's cookie first.
typedef void (*KO_bestShotDoneCallBack_t)(void* cookie, int jobId, KO_bestShotDone_cb_t* result);
typedef void (*KO_videoDoneCallBack_t)(void* cookie, int jobId);
typedef void (*KO_metaDataDoneCallBack_t)(void* cookie, int jobId);
typedef void (*KO_statisticsCallBack_t)(void* cookie, int jobId, KO_statistics_cb_t* stats);
typedef void (*KO_frameDoneCallBack_t)(void* cookie, void* buffer);
typedef void (*KO_engineDoneCallBack_t)(void* cookie, int jobId);

}  // namespace android
