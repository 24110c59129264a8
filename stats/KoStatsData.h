#pragma once
// Writer of the capture statistics record. The record is a sequence of typed segments (a
// 12-byte little-endian header, then a NUL-terminated text): for each section a header line
// that names every value with its printf format ("key format, key format, ...") and a data
// text printed with the bare formats, so that value i of a line belongs to row i of the
// section's key table. Sections: session, sequence, frames, faces, histograms and, on request,
// raw images of the history frames. Every length returned by the writers counts the NUL.
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "KoBestShotTypes.h"
#include "KoFrameData.h"
#include "KoSequenceData.h"
#include "KoStatsRecords.h"

namespace android {

class KoFrameHistSnapshot;

class KoStatsData {
 public:
  enum : int {
    FORMAT_BUFFER_SIZE = 256,  // each derived format string with its NUL
    FORMAT_PIECE_SIZE = 10,    // one format with its separator and NUL
    LINE_BUFFER_SIZE = 1024,   // the line scratch buffer `tmp` of every writer
    EXIF_BUFFER_SIZE = 36864,  // work buffer and budget of one assembly
    CORE_VERSION_SIZE = 20,
  };

  // Rows of the key tables.
  enum : int {
    SESSION_ROWS = 8,
    FRAME_ROWS = 43,
    FACE_HEADER_ROWS = 7,
    FACE_REPEAT_ROWS = 24,
    FACE_ROWS = FACE_HEADER_ROWS + FACE_REPEAT_ROWS,  // the face section's header line
    SEQUENCE_ROWS = 34,
    HISTOGRAM_ROWS = 3,
    RAW_ROWS = 11,
  };

  // Faces printed per frame at most.
  enum : int { MAX_PRINTED_FACES = 5 };

  // Raw image modes of genExifHistory.
  enum : int { YUV_MODE_NONE = 0, YUV_MODE_ALL = 1, YUV_MODE_MINIMAL = 2 };

  // The record's own format version ("exifFormatVersion").
  static const char kExifFormatVersion[];

  // Key tables. The per-face rows directly follow the face group rows, so sFaceDataHeader read
  // with FACE_ROWS rows is the face section's whole table; sFaceDataHeaderRepeat points at the
  // per-face part.
  static const KoHeaderPair_t sSessionDataHeader[SESSION_ROWS];
  static const KoHeaderPair_t sFrameDataHeader[FRAME_ROWS];
  static const KoHeaderPair_t sFaceDataHeader[FACE_ROWS];
  static const KoHeaderPair_t* const sFaceDataHeaderRepeat;
  static const KoHeaderPair_t sSequenceDataHeader[SEQUENCE_ROWS];
  static const KoHeaderPair_t sHistogramDataHeader[HISTOGRAM_ROWS];
  static const KoHeaderPair_t sRawYUVDataHeader[RAW_ROWS];

  KoStatsData();
  ~KoStatsData();

  // Formats of the table joined by ", " (and one more ", " after the last with
  // trailingSeparator) into buf (FORMAT_BUFFER_SIZE bytes). Returns the length with NUL, 1 for
  // an empty table, 0 on failure (buf is left empty).
  int buildFormatString(const KoHeaderPair_t* table, int count, char* buf, bool trailingSeparator);

  // Header line "key format, key format, ..." of the table into dst (at most maxSize bytes),
  // with tmp (LINE_BUFFER_SIZE bytes) as scratch. Returns the length with NUL, 1 for an empty
  // table, 0 on failure (dst left empty).
  int genHeader(char* dst, char* tmp, const KoHeaderPair_t* table, int count, int maxSize);

  // Section writers. Each empties dst, prints its text within maxSize bytes and returns the
  // length with NUL, or 0 on failure (logged, dst left empty). tmp: LINE_BUFFER_SIZE bytes.
  int genSessionData(char* dst, char* tmp, KoGenFrameData_t* summary, int maxSize);
  int genSeqData(char* dst, char* tmp, KoSequenceData* seq, bestShotInfo_t* bestShot, int maxSize);
  int genFrameData(char* dst, char* tmp, KoGenFrameData_t* summary, KoFrameHistSnapshot* snapshot,
                   int maxSize);
  int genFaceData(char* dst, char* tmp, KoFrameHistSnapshot* snapshot, int maxSize);
  int genHistogramData(char* dst, char* tmp, KoFrameHistSnapshot* snapshot, int maxSize);

  // Raw image sections: each frame becomes an 'rwdt' segment (with withHeader) holding a
  // raw-image line and the frame's pixels. Bytes go to out (null: file only) while they fit in
  // maxSize, and to fd when fd > 0. Return the bytes placed in out.
  int genRawYUVFrameData(char* out, char* tmp, KoGenFrameData_t* summary, sp<KoFrameData> frame,
                         int numFrames, int index, int fd, int colorFormat, int maxSize,
                         bool withHeader);
  int genRawYUVData(char* out, char* tmp, KoGenFrameData_t* summary, KoFrameHistSnapshot* snapshot,
                    int fd, int colorFormat, int maxSize, bool withHeader);
  int genMinimalYUVData(char* out, char* tmp, KoGenFrameData_t* summary,
                        KoFrameHistSnapshot* snapshot, int fd, int colorFormat, int maxSize,
                        bool withHeader);

  // Assembles the whole record into out (capacity outSize) and, when fd > 0, into fd. seq and
  // bestShot may be null (no sequence section). Returns the bytes placed in out, 0 after an
  // overflow or an allocation failure.
  int genExifHistory(char* out, int outSize, KoGenFrameData_t* summary,
                     KoFrameHistSnapshot* snapshot, KoSequenceData* seq, bestShotInfo_t* bestShot,
                     int fd, int yuvMode);

  void encapsulateData(KoDataSegments_t* seg, KoExifDataTypes type, int length, int version,
                       char* data);
  // Lays the listed segments into out and writes them to fd (fd > 0). Returns the bytes laid;
  // 0 once the laid total reaches outSize (logged; nothing more is laid).
  int writeExifDataSeg(char* out, int outSize, Vector<KoDataSegments_t>& segs, int fd);

  // Derived format strings (null when their allocation or derivation failed; the sections
  // that use a null one are written empty).
  char* mFrameDataHeaderFormat;
  char* mFaceDataHeaderFormat;
  char* mFaceDataHeaderRepeatFormat;
  char* mSequenceDataHeaderFormat;
  char* mHistogramDataHeaderFormat;
  char* mSessionDataHeaderFormat;
  char* mRawYUVDataHeaderFormat;
  char mCoreVersion[CORE_VERSION_SIZE];

 private:
  KoStatsData(const KoStatsData&) = delete;
  KoStatsData& operator=(const KoStatsData&) = delete;
};

}  // namespace android
