#define LOG_TAG "KoStatsData"

#include "KoStatsData.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <log/log.h>

#include "DexKoVersion.h"
#include "KoFrameHistSnapshot.h"

#define KOLOGW(...) __android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__)
#define KOLOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace android {

const char KoStatsData::kExifFormatVersion[] = "00.00.002";

const KoHeaderPair_t KoStatsData::sSessionDataHeader[SESSION_ROWS] = {
    {"numElements", "%d"},      {"exifFormatVersion", "%s"}, {"libKoCoreVersion", "%s"},
    {"bestShot.enabled", "%d"}, {"video.enabled", "%d"},     {"jobId", "%d"},
    {"hdrMode", "%d"},          {"isLateMode", "%d"},
};

const KoHeaderPair_t KoStatsData::sFrameDataHeader[FRAME_ROWS] = {
    {"numElements", "%d"},
    {"frame_id", "%d"},
    {"ts", "%lld"},
    {"sob.var", "%.3f"},
    {"sob.mean", "%.3f"},
    {"fr.var", "%.3f"},
    {"fr.mean", "%.3f"},
    {"diff.var", "%.3f"},
    {"diff.mean", "%.3f"},
    {"zoom", "%d"},
    {"accel.x", "%.3f"},
    {"accel.y", "%.3f"},
    {"accel.z", "%.3f"},
    {"gyro.x", "%.3f"},
    {"gyro.y", "%.3f"},
    {"gyro.z", "%.3f"},
    {"orient.x", "%.3f"},
    {"orient.y", "%.3f"},
    {"orient.z", "%.3f"},
    {"caf_state", "%d"},
    {"lens_pos", "%d"},
    {"af_num_roi", "%d"},
    {"af_win_x", "%d"},
    {"af_win_y", "%d"},
    {"af_win_dx", "%d"},
    {"af_win_dy", "%d"},
    {"af_roi_type", "%d"},
    {"cam_position", "%d"},
    {"zsl_bs_capture", "%s"},
    {"zsl", "%d"},
    {"fe_score", "%d"},
    {"faces_score", "%.3f"},
    {"bs_score", "%.3f"},
    {"motionVecStats.mean", "%.3f"},
    {"motionVecStats.stddev", "%.3f"},
    {"frmMotionScoreNorm", "%.3f"},
    {"ctrFrmMotionScoreNorm", "%.3f"},
    {"camMotionMode", "%d"},
    {"lux_level", "%d"},
    {"aec_state", "%d"},
    {"awb_state", "%d"},
    {"lux_idx", "%.3f"},
    {"exp_time", "%.3f"},
};

const KoHeaderPair_t KoStatsData::sFaceDataHeader[FACE_ROWS] = {
    // One group per frame.
    {"numElements", "%d"},
    {"frame_id", "%d"},
    {"ts", "%lld"},
    {"faces_ref_width", "%d"},
    {"faces_ref_height", "%d"},
    {"face.num_detected", "%d"},
    {"face.num_blinked_predicted", "%d"},
    // Repeated for each printed face of the frame.
    {"face.id", "%d"},
    {"face.score", "%d"},
    {"face.recog", "%d"},
    {"face.left", "%d"},
    {"face.top", "%d"},
    {"face.width", "%d"},
    {"face.height", "%d"},
    {"l_eye.x", "%d"},
    {"l_eye.y", "%d"},
    {"r_eye.x", "%d"},
    {"r_eye.y", "%d"},
    {"mouth.x", "%d"},
    {"mouth.y", "%d"},
    {"blink.l", "%d"},
    {"blink.r", "%d"},
    {"blink.det", "%d"},
    {"gaze.angle", "%d"},
    {"gaze.lr", "%d"},
    {"gaze.tb", "%d"},
    {"smile.degree", "%d"},
    {"smile.conf", "%d"},
    {"dir.lr", "%d"},
    {"dir.ud", "%d"},
    {"dir.roll", "%d"},
};

const KoHeaderPair_t* const KoStatsData::sFaceDataHeaderRepeat =
    KoStatsData::sFaceDataHeader + KoStatsData::FACE_HEADER_ROWS;

const KoHeaderPair_t KoStatsData::sSequenceDataHeader[SEQUENCE_ROWS] = {
    {"numElements", "%d"},
    {"jobId", "%d"},
    {"capturedTsUs", "%lld"},
    {"capturedFrameId", "%d"},
    {"capturedFrameVecIndex", "%d"},
    {"orientation", "%d"},
    {"bestshot.generated", "%d"},
    {"bestshot.frameId", "%d"},
    {"bestshot.frameIndex", "%d"},
    {"reference.frameId", "%d"},
    {"video.generated", "%d"},
    {"video.set", "%d"},
    {"video.cancelled", "%d"},
    {"video.motionScore", "%d"},
    {"video.startFrameId", "%d"},
    {"video.stopFrameId", "%d"},
    {"temporalStats.frameLuma.mean", "%.3f"},
    {"temporalStats.frameLuma.stddev", "%.3f"},
    {"temporalStats.frameDiff.mean", "%.3f"},
    {"temporalStats.frameDiff.stddev", "%.3f"},
    {"temporalStats.frameSobel.mean", "%.3f"},
    {"temporalStats.frameSobel.stddev", "%.3f"},
    {"bestshot.similarityCoeff", "%.3f"},
    {"bestshot.expOffset", "%d"},
    {"bestshot.expSimilarity", "%.3f"},
    {"jpeg.replace", "%d"},
    {"jpeg.replaceOverride", "%d"},
    {"isFaceScene", "%d"},
    {"shiftDetected", "%d"},
    {"bestshot.blurDetected", "%d"},
    {"bestshot.blurDetectCoeff", "%.3f"},
    {"bestshot.blurDetectSubCoeff", "%.3f"},
    {"bestshot.algBitField", "%d"},
    {"bestshot.cancelled.algBitField", "%d"},
};

const KoHeaderPair_t KoStatsData::sHistogramDataHeader[HISTOGRAM_ROWS] = {
    {"numElements", "%d"},
    {"frameId", "%d"},
    {"numBins", "%d"},
};

const KoHeaderPair_t KoStatsData::sRawYUVDataHeader[RAW_ROWS] = {
    {"numElements", "%d"}, {"numFrames", "%d"},   {"width", "%d"},       {"height", "%d"},
    {"size", "%d"},        {"colorFormat", "%d"}, {"orientation", "%d"}, {"frame_id", "%d"},
    {"ts", "%lld"},        {"queue.index", "%d"}, {"type", "%d"},
};

namespace {

const char kSeparator[] = ", ";
// The analysis band of a frame: 640 x 360 pixels centred vertically in its image.
const int64_t kBandWidth = KoFrameData::ANALYSIS_WIDTH;
const int64_t kBandHeight = KoFrameData::ANALYSIS_HEIGHT;
const int kSeparatorLength = 2;

// Builds one text of a section in dst, piece by piece, never past maxSize bytes (NUL
// included).
class TextOut {
 public:
  TextOut(char* dst, int maxSize) : mDst(dst), mMaxSize(maxSize) { clear(); }

  // Appends len bytes; false (and nothing appended) when the text and its NUL would exceed
  // maxSize.
  bool append(const char* piece, int len) {
    const int64_t need = static_cast<int64_t>(mLength) + len + 1;
    if (need > mMaxSize) {
      mNeeded = static_cast<int>(need);
      return false;
    }
    memcpy(mDst + mLength, piece, len);
    mLength += len;
    mDst[mLength] = '\0';
    return true;
  }

  void clear() {
    mLength = 0;
    if (mDst != nullptr && mMaxSize > 0) mDst[0] = '\0';
  }

  // Finishes the piece printed into tmp (finishPiece) and appends it. On failure (a line too
  // long, or the text past maxSize, which is logged) the text is emptied and false returned.
  bool put(const char* who, char* tmp, int printed, bool separator);

  // Length of the text with its NUL.
  int size() const { return mLength + 1; }

 private:
  char* mDst;
  int mMaxSize;
  int mLength = 0;
  int mNeeded = 0;
};

// Finishes a piece printed into tmp (printed = snprintf's result): adds the separator when
// asked. Returns the piece's length, or -1 when it does not fit the line buffer.
int finishPiece(const char* who, char* tmp, int printed, bool separator) {
  const int room = KoStatsData::LINE_BUFFER_SIZE - 1;
  const int length = printed + (separator ? kSeparatorLength : 0);
  if (printed < 0 || length > room) {
    KOLOGW("%s: line too long = %d, maxLine=%d", who, printed < 0 ? -1 : length + 1,
           KoStatsData::LINE_BUFFER_SIZE);
    return -1;
  }
  if (separator) memcpy(tmp + printed, kSeparator, kSeparatorLength + 1);
  return length;
}

bool TextOut::put(const char* who, char* tmp, int printed, bool separator) {
  const int length = finishPiece(who, tmp, printed, separator);
  if (length >= 0 && append(tmp, length)) return true;
  if (length >= 0) KOLOGW("%s maxSize reached = %d, maxSize=%d", who, mNeeded, mMaxSize);
  clear();
  return false;
}

// Reads a 32-bit word of a result block as the float it holds.
float wordAsFloat(const uint32_t word) {
  float value;
  memcpy(&value, &word, sizeof(value));
  return value;
}

// The snapshot's items in order: (index, frame) of every node with a frame.
void collectFrames(KoFrameHistSnapshot* snapshot, Vector<sp<KoFrameData>>& frames) {
  if (snapshot == nullptr) return;
  for (size_t i = 0; i < snapshot->mHistory.size(); ++i) {
    const sp<KoFrameHistNode>& node = snapshot->mHistory[i];
    frames.push_back(node != nullptr ? node->mFrameData : sp<KoFrameData>());
  }
}

ssize_t lastFrameIndex(const Vector<sp<KoFrameData>>& frames) {
  for (ssize_t i = static_cast<ssize_t>(frames.size()) - 1; i >= 0; --i) {
    if (frames[i] != nullptr) return i;
  }
  return -1;
}

// Writes to fd (fd > 0) and copies to the cursor (when set) one piece of a raw section.
// Returns the bytes copied to the buffer.
int emit(char*& cursor, int fd, const void* data, size_t length) {
  if (fd > 0) {
    const ssize_t written = write(fd, data, length);
    (void)written;
  }
  if (cursor == nullptr) return 0;
  memcpy(cursor, data, length);
  cursor += length;
  return static_cast<int>(length);
}

void storeSegmentHeader(uint8_t* dst, uint32_t size, uint32_t type, uint32_t version) {
  const uint32_t words[3] = {size, type, version};
  for (int w = 0; w < 3; ++w) {
    for (int b = 0; b < 4; ++b) dst[w * 4 + b] = static_cast<uint8_t>(words[w] >> (8 * b));
  }
}

}  // namespace

KoStatsData::KoStatsData()
    : mFrameDataHeaderFormat(nullptr),
      mFaceDataHeaderFormat(nullptr),
      mFaceDataHeaderRepeatFormat(nullptr),
      mSequenceDataHeaderFormat(nullptr),
      mHistogramDataHeaderFormat(nullptr),
      mSessionDataHeaderFormat(nullptr),
      mRawYUVDataHeaderFormat(nullptr),
      mCoreVersion() {
  char** const buffers[] = {&mFrameDataHeaderFormat,     &mFaceDataHeaderFormat,
                            &mFaceDataHeaderRepeatFormat, &mSequenceDataHeaderFormat,
                            &mHistogramDataHeaderFormat, &mSessionDataHeaderFormat,
                            &mRawYUVDataHeaderFormat};
  for (char** buffer : buffers) {
    *buffer = static_cast<char*>(malloc(FORMAT_BUFFER_SIZE));
    if (*buffer == nullptr) KOLOGW("%s: cannot allocate buffers", "KoStatsData");
  }

  struct Derivation {
    char** buffer;
    const KoHeaderPair_t* table;
    int count;
    bool trailingSeparator;
    const char* invalidText;
  };
  const Derivation derivations[] = {
      {&mFrameDataHeaderFormat, sFrameDataHeader, FRAME_ROWS, false,
       "%s: mFrameDataHeaderFormat invalid"},
      {&mFaceDataHeaderFormat, sFaceDataHeader, FACE_HEADER_ROWS, false,
       "%s: mFaceDataHeaderFormat invalid"},
      {&mFaceDataHeaderRepeatFormat, sFaceDataHeaderRepeat, FACE_REPEAT_ROWS, false,
       "%s: mFaceDataHeaderRepeatFormat invalid"},
      {&mSequenceDataHeaderFormat, sSequenceDataHeader, SEQUENCE_ROWS, false,
       "%s: mSequenceDataHeaderFormat invalid"},
      {&mHistogramDataHeaderFormat, sHistogramDataHeader, HISTOGRAM_ROWS, true,
       "%s: mHistogramDataHeaderFormat invalid"},
      {&mSessionDataHeaderFormat, sSessionDataHeader, SESSION_ROWS, false,
       "%s: mSessionDataHeaderFormat invalid"},
      {&mRawYUVDataHeaderFormat, sRawYUVDataHeader, RAW_ROWS, true,
       "%s: mRawYUVDataHeaderFormat invalid"},
  };
  for (const Derivation& d : derivations) {
    if (buildFormatString(d.table, d.count, *d.buffer, d.trailingSeparator) == 0) {
      KOLOGW(d.invalidText, "KoStatsData");
      free(*d.buffer);
      *d.buffer = nullptr;
    }
  }

  DexKoVersion version;
  const char* text = nullptr;
  if (version.getVersion(&text) == 0 && text != nullptr) {
    strncpy(mCoreVersion, text, CORE_VERSION_SIZE - 1);
    mCoreVersion[CORE_VERSION_SIZE - 1] = '\0';
  }
}

KoStatsData::~KoStatsData() {
  free(mFrameDataHeaderFormat);
  free(mFaceDataHeaderFormat);
  free(mFaceDataHeaderRepeatFormat);
  free(mSequenceDataHeaderFormat);
  free(mHistogramDataHeaderFormat);
  free(mSessionDataHeaderFormat);
  free(mRawYUVDataHeaderFormat);
}

int KoStatsData::buildFormatString(const KoHeaderPair_t* table, int count, char* buf,
                                   bool trailingSeparator) {
  if (buf == nullptr) {
    KOLOGW("%s: buf NULL", "buildFormatString");
    return 0;
  }
  buf[0] = '\0';
  if (count < 1) return 1;
  if (table == nullptr) return 0;
  int total = 0;
  for (int i = 0; i < count; ++i) {
    char piece[FORMAT_PIECE_SIZE];
    const bool separator = trailingSeparator || i + 1 < count;
    const char* format = table[i].format != nullptr ? table[i].format : "";
    snprintf(piece, sizeof(piece), "%.9s%s", format, separator ? kSeparator : "");
    const int length = static_cast<int>(strlen(piece));
    total += length;
    if (total + 1 > FORMAT_BUFFER_SIZE) {
      KOLOGW("%s maxSize reached = %d, maxSize=%d", "buildFormatString", total + 1,
             FORMAT_BUFFER_SIZE);
      buf[0] = '\0';
      return 0;
    }
    memcpy(buf + total - length, piece, length + 1);
  }
  return total + 1;
}

int KoStatsData::genHeader(char* dst, char* tmp, const KoHeaderPair_t* table, int count,
                           int maxSize) {
  if (dst == nullptr || tmp == nullptr) {
    KOLOGW("%s, Error: input buffer null", "genHeader");
    return 0;
  }
  TextOut text(dst, maxSize);
  if (count < 1) return 1;
  if (table == nullptr) return 0;
  for (int i = 0; i < count; ++i) {
    const int printed = snprintf(tmp, LINE_BUFFER_SIZE, "%s %s", table[i].key, table[i].format);
    if (!text.put("genHeader", tmp, printed, i + 1 < count)) return 0;
  }
  return text.size();
}

int KoStatsData::genSessionData(char* dst, char* tmp, KoGenFrameData_t* summary, int maxSize) {
  if (dst == nullptr || tmp == nullptr || mSessionDataHeaderFormat == nullptr ||
      summary == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genSessionData");
    return 0;
  }
  TextOut text(dst, maxSize);
  const int printed = snprintf(tmp, LINE_BUFFER_SIZE, mSessionDataHeaderFormat,
                               static_cast<int>(SESSION_ROWS), kExifFormatVersion, mCoreVersion,
                               summary->bestShotEnabled, summary->videoEnabled, summary->jobId,
                               summary->hdrMode, summary->isLateMode);
  if (!text.put("genSessionData", tmp, printed, false)) return 0;
  return text.size();
}

int KoStatsData::genSeqData(char* dst, char* tmp, KoSequenceData* seq, bestShotInfo_t* bestShot,
                            int maxSize) {
  if (bestShot == nullptr) {
    KOLOGW("%s: best shot structure NULL", "genSeqData");
    return 0;
  }
  if (dst == nullptr || tmp == nullptr || mSequenceDataHeaderFormat == nullptr || seq == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genSeqData");
    return 0;
  }
  TextOut text(dst, maxSize);
  const bestShotInfo_t& bs = *bestShot;
  const int printed = snprintf(
      tmp, LINE_BUFFER_SIZE, mSequenceDataHeaderFormat, static_cast<int>(SEQUENCE_ROWS),
      seq->mJobId, static_cast<long long>(seq->mCapturedTsUs), seq->mCapturedFrameId,
      seq->mCapturedFrameIndex, seq->mOrientation, bs.generated, bs.frameId, bs.frameIndex,
      bs.referenceFrameId, seq->mVideoGenerated, seq->mVideoSet, seq->mVideoCancelled,
      seq->mVideoMotionScore, seq->mVideoStartFrameId, seq->mVideoStopFrameId,
      static_cast<double>(seq->mFrameLumaStats.mean),
      static_cast<double>(seq->mFrameLumaStats.stddevCopy),
      static_cast<double>(seq->mFrameDiffStats.mean),
      static_cast<double>(seq->mFrameDiffStats.stddevCopy),
      static_cast<double>(seq->mFrameSobelStats.mean),
      static_cast<double>(seq->mFrameSobelStats.stddevCopy),
      static_cast<double>(bs.similarityCoeff), bs.expOffset, static_cast<double>(bs.expSimilarity),
      bs.replace, bs.replaceOverride, bs.isFaceScene, bs.shiftDetected, bs.blurDetected,
      static_cast<double>(bs.blurDetectCoeff), static_cast<double>(bs.blurDetectSubCoeff),
      static_cast<int>(bs.algBitField), static_cast<int>(bs.cancelledAlgBitField));
  if (!text.put("genSeqData", tmp, printed, false)) return 0;
  return text.size();
}

int KoStatsData::genFrameData(char* dst, char* tmp, KoGenFrameData_t* summary,
                              KoFrameHistSnapshot* snapshot, int maxSize) {
  if (dst == nullptr || tmp == nullptr || mFrameDataHeaderFormat == nullptr ||
      summary == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genFrameData");
    return 0;
  }
  TextOut text(dst, maxSize);
  Vector<sp<KoFrameData>> frames;
  collectFrames(snapshot, frames);
  const ssize_t last = lastFrameIndex(frames);
  for (ssize_t i = 0; i <= last; ++i) {
    const sp<KoFrameData>& f = frames[i];
    if (f == nullptr) continue;

    const char* label = "ZSL";
    if (f->zslBuffer() != nullptr) {
      if (summary->bestShotGenerated && i == summary->bestShotFrameIndex) {
        label = "BestShot";
      } else {
        label = (i == summary->capturedFrameIndex) ? "CapturedZSL" : "ZSL";
        if (summary->bestShotGenerated && summary->referenceFrameId != summary->capturedFrameId &&
            static_cast<uint32_t>(summary->referenceFrameId) == f->mFrameId) {
          label = "PseudoCaptured";
        }
      }
    } else {
      label = (i == summary->capturedFrameIndex) ? "CapturedNoZSL" : "NoZSL";
    }

    const int printed = snprintf(
        tmp, LINE_BUFFER_SIZE, mFrameDataHeaderFormat, static_cast<int>(FRAME_ROWS),
        static_cast<int>(f->mFrameId), static_cast<long long>(f->mTimestamp),
        static_cast<double>(f->mSobelStats.stddevCopy), static_cast<double>(f->mSobelStats.mean),
        static_cast<double>(f->mLumaStats.stddevCopy), static_cast<double>(f->mLumaStats.mean),
        static_cast<double>(f->mDiffStats.stddevCopy), static_cast<double>(f->mDiffStats.mean),
        static_cast<int>(f->mZoom), static_cast<double>(f->mAccelSample.mX),
        static_cast<double>(f->mAccelSample.mY), static_cast<double>(f->mAccelSample.mZ),
        static_cast<double>(f->mGyroSample.mX), static_cast<double>(f->mGyroSample.mY),
        static_cast<double>(f->mGyroSample.mZ), static_cast<double>(f->mOrientSample.mX),
        static_cast<double>(f->mOrientSample.mY), static_cast<double>(f->mOrientSample.mZ),
        static_cast<int>(f->mCafState), static_cast<int>(f->mLensPos),
        static_cast<int>(f->mAfNumRoi), static_cast<int>(f->mAfWindow[0]),
        static_cast<int>(f->mAfWindow[1]), static_cast<int>(f->mAfWindow[2]),
        static_cast<int>(f->mAfWindow[3]), static_cast<int>(f->mAfRoiType), summary->camPosition,
        label, static_cast<int>(f->mHasZsl), f->mFeScore, static_cast<double>(f->mFacesScore),
        static_cast<double>(f->mBsScore), static_cast<double>(wordAsFloat(f->mMotionResult[3])),
        static_cast<double>(wordAsFloat(f->mMotionResult[4])),
        static_cast<double>(wordAsFloat(f->mMotionResult[8])),
        static_cast<double>(wordAsFloat(f->mMotionResult[9])), static_cast<int>(f->mCamMotion[3]),
        f->mLuxLevel, f->mAecState, f->mAwbState, static_cast<double>(f->mLuxIdx),
        static_cast<double>(f->mExpTime));
    if (!text.put("genFrameData", tmp, printed, i < last)) return 0;
  }
  return text.size();
}

int KoStatsData::genFaceData(char* dst, char* tmp, KoFrameHistSnapshot* snapshot, int maxSize) {
  if (dst == nullptr || tmp == nullptr || mFaceDataHeaderFormat == nullptr ||
      mFaceDataHeaderRepeatFormat == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genFaceData");
    return 0;
  }
  TextOut text(dst, maxSize);
  Vector<sp<KoFrameData>> frames;
  collectFrames(snapshot, frames);
  const ssize_t last = lastFrameIndex(frames);
  for (ssize_t i = 0; i <= last; ++i) {
    const sp<KoFrameData>& f = frames[i];
    if (f == nullptr) continue;
    const KO_cam_face_detection_data_t& record = f->mFaceData.record;
    // A record may claim more faces than it holds: print the entries present only.
    const int printedFaces = static_cast<int>(f->faceCount());

    int printed = snprintf(tmp, LINE_BUFFER_SIZE, mFaceDataHeaderFormat,
                           FACE_HEADER_ROWS + FACE_REPEAT_ROWS * printedFaces,
                           static_cast<int>(f->mFrameId), static_cast<long long>(f->mTimestamp),
                           static_cast<int>(f->mFaceRefWidth), static_cast<int>(f->mFaceRefHeight),
                           static_cast<int>(record.numFaces), f->mFaceData.numBlinkedPredicted);
    if (!text.put("genFaceData", tmp, printed, i < last || printedFaces > 0)) return 0;
    for (int k = 0; k < printedFaces; ++k) {
      const KO_cam_face_t& face = record.faces[k];
      printed = snprintf(
          tmp, LINE_BUFFER_SIZE, mFaceDataHeaderRepeatFormat, face.id,
          static_cast<int>(face.score), static_cast<int>(face.recognised), face.left, face.top,
          face.width, face.height, face.leftEyeX, face.leftEyeY, face.rightEyeX, face.rightEyeY,
          face.mouthX, face.mouthY, static_cast<int>(face.leftBlink),
          static_cast<int>(face.rightBlink), static_cast<int>(face.blinkDetected),
          static_cast<int>(face.gazeAngle), static_cast<int>(face.leftRightGaze),
          static_cast<int>(face.topBottomGaze), static_cast<int>(face.smileDegree),
          static_cast<int>(face.smileConfidence), static_cast<int>(face.leftRightDir),
          static_cast<int>(face.upDownDir), static_cast<int>(face.rollDir));
      if (!text.put("genFaceData", tmp, printed, i < last || k + 1 < printedFaces)) return 0;
    }
  }
  return text.size();
}

int KoStatsData::genHistogramData(char* dst, char* tmp, KoFrameHistSnapshot* snapshot,
                                  int maxSize) {
  if (dst == nullptr || tmp == nullptr || mHistogramDataHeaderFormat == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genHistogramData");
    return 0;
  }
  TextOut text(dst, maxSize);
  Vector<sp<KoFrameData>> frames;
  collectFrames(snapshot, frames);
  const ssize_t count = static_cast<ssize_t>(frames.size());
  for (ssize_t i = 0; i < count; ++i) {
    const sp<KoFrameData>& f = frames[i];
    if (f == nullptr || f->mHistogramBins == 0 || f->mHistogram == nullptr) continue;
    const int bins = static_cast<int>(f->mHistogramBins);
    const bool notLast = i + 1 < count;

    // The histogram format ends in its own separator.
    int printed = snprintf(tmp, LINE_BUFFER_SIZE, mHistogramDataHeaderFormat,
                           bins + HISTOGRAM_ROWS, static_cast<int>(f->mFrameId), bins);
    if (!text.put("genHistogramData", tmp, printed, false)) return 0;
    for (int b = 0; b < bins; ++b) {
      printed = snprintf(tmp, LINE_BUFFER_SIZE, "%d", static_cast<int>(f->mHistogram[b]));
      if (!text.put("genHistogramData", tmp, printed, b + 1 < bins || notLast)) return 0;
    }
  }
  return text.size();
}

int KoStatsData::genRawYUVFrameData(char* out, char* tmp, KoGenFrameData_t* summary,
                                     sp<KoFrameData> frame, int numFrames, int index, int fd,
                                     int colorFormat, int maxSize, bool withHeader) {
  if (tmp == nullptr || mRawYUVDataHeaderFormat == nullptr || summary == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genRawYUVFrameData");
    return 0;
  }
  if (frame == nullptr) {
    KOLOGW("%s: Error: frameData invalid", "genRawYUVFrameData");
    return 0;
  }

  const int w = static_cast<int>(frame->mAnalysisWidth);
  const int h = static_cast<int>(frame->mAnalysisHeight);
  const int64_t size64 = colorFormat == 2 ? static_cast<int64_t>(w) * h
                                          : static_cast<int64_t>(w) * h * 3 / 2;

  // Where the pixels come from; all of it must lie within the frame's image.
  const int64_t imageWidth = frame->mWidth;
  const int64_t imageHeight = frame->mHeight;
  const int64_t bandLuma = kBandWidth * kBandHeight;
  const bool band = imageHeight > 0 &&
                    static_cast<double>(imageWidth) / static_cast<double>(imageHeight) < 1.4;
  struct Piece {
    int64_t offset;
    int64_t length;
  } pieces[3] = {};
  int pieceCount = 0;
  if (band) {
    pieces[pieceCount++] = {imageWidth * ((imageHeight - kBandHeight) / 2), bandLuma};
    if (size64 > bandLuma) {
      const int64_t chromaSkip = ((imageHeight - kBandHeight) / 4 * imageWidth) / 2;
      pieces[pieceCount++] = {imageWidth * imageHeight + chromaSkip, bandLuma / 4};
      pieces[pieceCount++] = {imageWidth * imageHeight * 5 / 4 + chromaSkip, bandLuma / 4};
    }
  } else {
    pieces[pieceCount++] = {0, size64};
  }
  int64_t pixelBytes = 0;
  const uint8_t* image = nullptr;
  size_t imageBytes = 0;
  if (frame->mDownscaledImage != nullptr) {
    image = frame->mDownscaledImage->data();
    imageBytes = frame->mDownscaledImage->size();
  }
  bool valid = image != nullptr && size64 > 0 && size64 <= INT32_MAX;
  for (int p = 0; valid && p < pieceCount; ++p) {
    valid = pieces[p].offset >= 0 && pieces[p].length >= 0 &&
            pieces[p].offset + pieces[p].length <= static_cast<int64_t>(imageBytes);
    pixelBytes += pieces[p].length;
  }
  // The segment must hold exactly `size` pixel bytes.
  if (!valid || pixelBytes != size64) {
    KOLOGW("%s: Error: frameData invalid", "genRawYUVFrameData");
    return 0;
  }
  const int size = static_cast<int>(size64);

  int type;
  if (summary->bestShotGenerated && index == summary->bestShotFrameIndex) {
    type = 3;
  } else if (index < summary->capturedFrameIndex) {
    type = 0;
  } else if (index == summary->capturedFrameIndex) {
    type = 1;
  } else {
    type = 2;
  }

  const int printed = snprintf(tmp, LINE_BUFFER_SIZE, mRawYUVDataHeaderFormat,
                               static_cast<int>(RAW_ROWS), numFrames, w, h, size, colorFormat,
                               frame->mOrientation, static_cast<int>(frame->mFrameId),
                               static_cast<long long>(frame->mTimestamp), index, type);
  if (finishPiece("genRawYUVFrameData", tmp, printed, false) < 0) return 0;
  const int lineLength = printed + 1;

  const int64_t needed = static_cast<int64_t>(size) + lineLength +
                         (withHeader ? static_cast<int>(KO_EXIF_SEGMENT_HEADER_SIZE) : 0);
  char* cursor = out;
  if (out != nullptr && needed > maxSize) {
    KOLOGW("%s maxSize reached = %d, maxSize=%d", "genRawYUVFrameData",
           static_cast<int>(needed), maxSize);
    cursor = nullptr;
  }

  int copied = 0;
  if (withHeader) {
    uint8_t header[KO_EXIF_SEGMENT_HEADER_SIZE];
    storeSegmentHeader(header, static_cast<uint32_t>(needed), KO_EXIF_RAW_DATA,
                       KO_EXIF_SEGMENT_VERSION);
    copied += emit(cursor, fd, header, sizeof(header));
  }
  copied += emit(cursor, fd, tmp, lineLength);
  for (int p = 0; p < pieceCount; ++p) {
    copied += emit(cursor, fd, image + pieces[p].offset, static_cast<size_t>(pieces[p].length));
  }
  return copied;
}

int KoStatsData::genRawYUVData(char* out, char* tmp, KoGenFrameData_t* summary,
                               KoFrameHistSnapshot* snapshot, int fd, int colorFormat, int maxSize,
                               bool withHeader) {
  if (tmp == nullptr || mRawYUVDataHeaderFormat == nullptr || summary == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genRawYUVData");
    return 0;
  }
  if (snapshot == nullptr || snapshot->mHistory.isEmpty()) {
    KOLOGW("%s: Error: history invalid", "genRawYUVData");
    return 0;
  }
  const int count = static_cast<int>(snapshot->mHistory.size());
  char* cursor = out;
  int room = maxSize;
  int total = 0;
  for (int i = 0; i < count; ++i) {
    const int n = genRawYUVFrameData(cursor, tmp, summary, snapshot->mHistory[i]->mFrameData,
                                     count, i, fd, colorFormat, room, withHeader);
    if (cursor == nullptr) continue;
    room -= n;
    cursor += n;
    if (room < 1) {
      total = 0;
      room = 0;
    } else {
      total += n;
    }
  }
  return total;
}

int KoStatsData::genMinimalYUVData(char* out, char* tmp, KoGenFrameData_t* summary,
                                   KoFrameHistSnapshot* snapshot, int fd, int colorFormat,
                                   int maxSize, bool withHeader) {
  if (tmp == nullptr || mRawYUVDataHeaderFormat == nullptr || summary == nullptr) {
    KOLOGW("%s: Error: buffers NULL", "genMinimalYUVData");
    return 0;
  }
  if (snapshot == nullptr || snapshot->mHistory.isEmpty()) {
    KOLOGW("%s: Error: history invalid", "genMinimalYUVData");
    return 0;
  }
  const int count = static_cast<int>(snapshot->mHistory.size());
  const int captured = summary->capturedFrameIndex;
  const int best = summary->bestShotFrameIndex;
  if (best < 0 || best >= count || captured < 0 || captured >= count) return 0;

  char* cursor = out;
  int room = maxSize;
  int total = 0;
  int n = genRawYUVFrameData(cursor, tmp, summary, snapshot->mHistory[captured]->mFrameData,
                             count, captured, fd, colorFormat, room, withHeader);
  if (cursor != nullptr) {
    room -= n;
    cursor += n;
    if (room < 1) {
      total = 0;
      room = 0;
    } else {
      total += n;
    }
  }
  n = genRawYUVFrameData(cursor, tmp, summary, snapshot->mHistory[best]->mFrameData, count, best,
                         fd, colorFormat, room, withHeader);
  if (cursor != nullptr && room > n) total += n;
  return total;
}

void KoStatsData::encapsulateData(KoDataSegments_t* seg, KoExifDataTypes type, int length,
                                  int version, char* data) {
  if (seg == nullptr) return;
  seg->size = static_cast<uint32_t>(length) + KO_EXIF_SEGMENT_HEADER_SIZE;
  seg->type = type;
  seg->version = static_cast<uint32_t>(version);
  seg->data = data;
}

int KoStatsData::writeExifDataSeg(char* out, int outSize, Vector<KoDataSegments_t>& segs,
                                  int fd) {
  char* cursor = out;
  int64_t total = 0;
  for (size_t i = 0; i < segs.size(); ++i) {
    const KoDataSegments_t& seg = segs[i];
    if (seg.size == 0) continue;
    uint8_t header[KO_EXIF_SEGMENT_HEADER_SIZE];
    storeSegmentHeader(header, seg.size, seg.type, seg.version);
    const size_t payload = seg.size > KO_EXIF_SEGMENT_HEADER_SIZE
                               ? seg.size - KO_EXIF_SEGMENT_HEADER_SIZE
                               : 0;
    if (cursor != nullptr) {
      total += seg.size;
      if (total >= outSize) {
        // Nothing of this segment is laid: the buffer ends before it would.
        KOLOGW("%s: buffer overflow  size=%d exifBufSize = %d", "writeExifDataSeg",
               static_cast<int>(total), outSize);
        cursor = nullptr;
        total = 0;
      } else {
        memcpy(cursor, header, sizeof(header));
        if (payload > 0 && seg.data != nullptr) {
          memcpy(cursor + sizeof(header), seg.data, payload);
        }
        cursor += seg.size;
      }
    }
    if (fd > 0) {
      ssize_t written = write(fd, header, sizeof(header));
      if (payload > 0 && seg.data != nullptr) written = write(fd, seg.data, payload);
      (void)written;
    }
  }
  return static_cast<int>(total);
}

int KoStatsData::genExifHistory(char* out, int outSize, KoGenFrameData_t* summary,
                                KoFrameHistSnapshot* snapshot, KoSequenceData* seq,
                                bestShotInfo_t* bestShot, int fd, int yuvMode) {
  char* work = static_cast<char*>(malloc(EXIF_BUFFER_SIZE));
  char* line = static_cast<char*>(malloc(LINE_BUFFER_SIZE));
  if (work == nullptr || line == nullptr) {
    KOLOGE("%s: Can not allocate buffer", "genExifHistory");
    free(work);
    free(line);
    return 0;
  }
  memset(work, 0, EXIF_BUFFER_SIZE);
  memset(line, 0, LINE_BUFFER_SIZE);

  Vector<KoDataSegments_t> segs;
  // The texts share what is left of the record once every segment's header is set aside (a
  // section that fails still costs its 12 bytes), less one byte: a record that fills the buffer
  // exactly counts as an overflow. So the record always fits, and a section that would not is
  // dropped on its own, by its writer, which logs it.
  const int segments = seq != nullptr ? 10 : 8;
  int budget = EXIF_BUFFER_SIZE - 1 - segments * KO_EXIF_SEGMENT_HEADER_SIZE;
  char* cursor = work;
  // Adds the text just written at the cursor as the next segment.
  auto add = [&](KoExifDataTypes type, int length) {
    KoDataSegments_t seg;
    encapsulateData(&seg, type, length, KO_EXIF_SEGMENT_VERSION, cursor);
    segs.push_back(seg);
    cursor += length;
    budget -= length;
  };

  add(KO_EXIF_SESSION_HEADER, genHeader(cursor, line, sSessionDataHeader, SESSION_ROWS, budget));
  add(KO_EXIF_SESSION_DATA, genSessionData(cursor, line, summary, budget));
  if (seq != nullptr) {
    add(KO_EXIF_SEQUENCE_HEADER,
        genHeader(cursor, line, sSequenceDataHeader, SEQUENCE_ROWS, budget));
    add(KO_EXIF_SEQUENCE_DATA, genSeqData(cursor, line, seq, bestShot, budget));
  }
  add(KO_EXIF_FRAME_HEADER, genHeader(cursor, line, sFrameDataHeader, FRAME_ROWS, budget));
  add(KO_EXIF_FRAME_DATA, genFrameData(cursor, line, summary, snapshot, budget));
  add(KO_EXIF_FACE_HEADER, genHeader(cursor, line, sFaceDataHeader, FACE_ROWS, budget));
  add(KO_EXIF_FACE_DATA, genFaceData(cursor, line, snapshot, budget));
  add(KO_EXIF_HISTOGRAM_HEADER,
      genHeader(cursor, line, sHistogramDataHeader, HISTOGRAM_ROWS, budget));
  add(KO_EXIF_HISTOGRAM_DATA, genHistogramData(cursor, line, snapshot, budget));

  const int written = writeExifDataSeg(out, outSize, segs, fd);
  int total = written;

  char* rawRegion = out != nullptr ? out + written : nullptr;
  int room = outSize - written;
  if (room < 1) {
    rawRegion = nullptr;
    room = 0;
  }

  if (yuvMode != YUV_MODE_NONE) {
    segs.clear();
    const int headerLength =
        genHeader(work, line, sRawYUVDataHeader, RAW_ROWS, EXIF_BUFFER_SIZE);
    KoDataSegments_t seg;
    encapsulateData(&seg, KO_EXIF_RAW_HEADER, headerLength, KO_EXIF_SEGMENT_VERSION, work);
    segs.push_back(seg);
    total += writeExifDataSeg(rawRegion, room, segs, fd);
    if (yuvMode == YUV_MODE_ALL) {
      total += genRawYUVData(rawRegion, line, summary, snapshot, fd, 1, room, true);
    } else if (yuvMode == YUV_MODE_MINIMAL) {
      total += genMinimalYUVData(rawRegion, line, summary, snapshot, fd, 1, room, true);
    } else {
      KOLOGW("%s, Error: Need to pass in correct yuv encode mode (%d)", "genExifHistory",
             yuvMode);
    }
  }

  free(work);
  free(line);
  return total;
}

}  // namespace android
