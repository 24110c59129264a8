#pragma once
// Reader of the capture statistics record written by KoStatsData: walks the segments of a
// record (a buffer, a file written through the writer's descriptor, or an EXIF history block
// that starts with the 16-bit values 3 and 0), checks their sizes, types and versions, splits
// each header line into key/format columns and each data text into typed values, and turns the
// record into JSON.
//
// A data text is read with the columns of the header line of its section. When that header
// segment is missing (raw image data laid over its header in a buffer) or empty (its writer
// failed), the writer's own key table of the section is used instead.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace android {

class KoStatsReader {
 public:
  enum ValueType { VALUE_INT, VALUE_FLOAT, VALUE_TEXT };

  struct Value {
    ValueType type = VALUE_INT;
    int64_t i = 0;     // VALUE_INT
    double f = 0.0;    // VALUE_FLOAT
    std::string text;  // VALUE_TEXT: the value; otherwise the token as printed
  };

  // One column of a header line: "key format".
  struct Column {
    std::string key;
    std::string format;
    ValueType type = VALUE_INT;
    int precision = -1;  // digits after the point of a float format, -1 when not given
  };

  // One segment as found in the record.
  struct Segment {
    size_t offset = 0;  // of its 12-byte header, from the start of the record
    uint32_t size = 0;  // header + payload
    uint32_t type = 0;
    uint32_t version = 0;
    size_t payloadSize = 0;
  };

  // One line of values, in column order.
  struct Row {
    std::vector<std::pair<std::string, Value>> fields;

    const Value* find(const std::string& key) const;
    bool has(const std::string& key) const { return find(key) != nullptr; }
    int64_t getInt(const std::string& key, int64_t fallback = 0) const;
    double getFloat(const std::string& key, double fallback = 0.0) const;
    std::string getText(const std::string& key) const;
  };

  // The face group of one frame and its printed faces.
  struct FaceGroup {
    Row group;
    std::vector<Row> faces;
  };

  struct Histogram {
    Row header;  // numElements, frameId, numBins
    std::vector<int64_t> bins;
  };

  // One raw image segment: its line and where its pixels are in the record.
  struct RawImage {
    Row header;
    size_t pixelOffset = 0;  // into data()
    size_t pixelSize = 0;
  };

  KoStatsReader();

  // Reads a record of `size` bytes (a copy is kept). A leading 3, 0 pair of 16-bit values is
  // taken as the EXIF block prefix and skipped. Returns false on the first fault, with the
  // text in error(); what was read before it stays available.
  bool parse(const void* data, size_t size);
  // The same for a file's whole content.
  bool parseFile(const char* path);

  const std::string& error() const { return mError; }
  bool hadExifPrefix() const { return mExifPrefix; }
  // The record as read (after the prefix).
  const uint8_t* data() const { return mData.data(); }
  size_t size() const { return mData.size(); }

  const std::vector<Segment>& segments() const { return mSegments; }
  bool hasSession() const { return mHasSession; }
  const Row& session() const { return mSession; }
  bool hasSequence() const { return mHasSequence; }
  const Row& sequence() const { return mSequence; }
  const std::vector<Row>& frames() const { return mFrames; }
  const std::vector<FaceGroup>& faceGroups() const { return mFaceGroups; }
  const std::vector<Histogram>& histograms() const { return mHistograms; }
  const std::vector<RawImage>& rawImages() const { return mRawImages; }
  // The columns a header segment of that type declared (empty when none was read).
  const std::vector<Column>& columns(uint32_t headerType) const;

  // The record as one JSON object (an "error" member when reading failed).
  std::string toJson() const;

  // Four letters of a segment type ('sshd' -> "sshd"); "????" for unknown codes.
  static std::string typeName(uint32_t type);
  static bool isKnownType(uint32_t type);
  // Splits a header line into columns; false for a malformed line.
  static bool splitHeader(const std::string& line, std::vector<Column>& out);
  // Splits a data text at ", "; a text that ends in ", " has no empty last token.
  static std::vector<std::string> splitValues(const std::string& text);
  // Converts one printed token by its column's format; false when it does not match.
  static bool parseValue(const std::string& token, const Column& column, Value& out);

 private:
  enum Section { SECTION_SESSION, SECTION_SEQUENCE, SECTION_FRAME, SECTION_FACE,
                 SECTION_HISTOGRAM, SECTION_RAW, SECTION_COUNT };

  void reset();
  bool fail(const std::string& text);
  bool readSegment(const Segment& seg);
  const std::vector<Column>& columnsFor(Section section);
  bool readRows(Section section, const std::string& text);
  bool readRow(const std::vector<Column>& columns, const std::vector<std::string>& tokens,
               size_t first, size_t count, Row& row, const char* what);
  bool readFaces(const std::string& text);
  bool readHistograms(const std::string& text);
  bool readRaw(const Segment& seg);

  std::vector<uint8_t> mData;
  bool mExifPrefix = false;
  std::string mError;
  std::vector<Segment> mSegments;
  std::vector<Column> mColumns[SECTION_COUNT];
  std::vector<Column> mDefaultColumns[SECTION_COUNT];
  bool mHeaderSeen[SECTION_COUNT];
  bool mDataSeen[SECTION_COUNT];
  bool mHasSession = false;
  Row mSession;
  bool mHasSequence = false;
  Row mSequence;
  std::vector<Row> mFrames;
  std::vector<FaceGroup> mFaceGroups;
  std::vector<Histogram> mHistograms;
  std::vector<RawImage> mRawImages;
};

}  // namespace android
