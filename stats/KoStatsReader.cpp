#include "KoStatsReader.h"

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "KoStatsData.h"

namespace android {

namespace {

const char kSeparator[] = ", ";

uint32_t readLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

std::string offsetText(size_t offset) { return "offset " + std::to_string(offset); }

void jsonString(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          snprintf(esc, sizeof(esc), "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void jsonInt(std::string& out, int64_t value) { out += std::to_string(value); }

void jsonValue(std::string& out, const KoStatsReader::Value& value, int precision) {
  switch (value.type) {
    case KoStatsReader::VALUE_INT:
      jsonInt(out, value.i);
      break;
    case KoStatsReader::VALUE_FLOAT: {
      if (!std::isfinite(value.f)) {
        out += "null";
        break;
      }
      char text[64];
      if (precision >= 0 && precision <= 17) {
        snprintf(text, sizeof(text), "%.*f", precision, value.f);
      } else {
        snprintf(text, sizeof(text), "%.17g", value.f);
      }
      out += text;
      break;
    }
    case KoStatsReader::VALUE_TEXT:
      jsonString(out, value.text);
      break;
  }
}

// Float precision of each key as its format gave it, looked up once per value.
typedef std::unordered_map<std::string, int> Precisions;

Precisions precisionsOf(const std::vector<KoStatsReader::Column>& columns) {
  Precisions p;
  p.reserve(columns.size());
  for (const KoStatsReader::Column& c : columns) p.emplace(c.key, c.precision);
  return p;
}

void jsonRowMembers(std::string& out, const KoStatsReader::Row& row, const Precisions& precisions) {
  bool first = true;
  for (const auto& field : row.fields) {
    if (!first) out += ',';
    first = false;
    jsonString(out, field.first);
    out += ':';
    const auto it = precisions.find(field.first);
    jsonValue(out, field.second, it == precisions.end() ? -1 : it->second);
  }
}

void jsonRow(std::string& out, const KoStatsReader::Row& row, const Precisions& precisions) {
  out += '{';
  jsonRowMembers(out, row, precisions);
  out += '}';
}

std::vector<KoStatsReader::Column> columnsOfTable(const KoHeaderPair_t* table, int count) {
  std::vector<KoStatsReader::Column> columns;
  std::string line;
  for (int i = 0; i < count; ++i) {
    if (i > 0) line += kSeparator;
    line += std::string(table[i].key) + " " + table[i].format;
  }
  KoStatsReader::splitHeader(line, columns);
  return columns;
}

}  // namespace

// ---- Row

const KoStatsReader::Value* KoStatsReader::Row::find(const std::string& key) const {
  for (const auto& field : fields) {
    if (field.first == key) return &field.second;
  }
  return nullptr;
}

int64_t KoStatsReader::Row::getInt(const std::string& key, int64_t fallback) const {
  const Value* v = find(key);
  return v != nullptr && v->type == VALUE_INT ? v->i : fallback;
}

double KoStatsReader::Row::getFloat(const std::string& key, double fallback) const {
  const Value* v = find(key);
  if (v == nullptr) return fallback;
  if (v->type == VALUE_FLOAT) return v->f;
  if (v->type == VALUE_INT) return static_cast<double>(v->i);
  return fallback;
}

std::string KoStatsReader::Row::getText(const std::string& key) const {
  const Value* v = find(key);
  return v != nullptr ? v->text : std::string();
}

// ---- Static helpers

std::string KoStatsReader::typeName(uint32_t type) {
  if (!isKnownType(type)) return "????";
  std::string name(4, ' ');
  for (int i = 0; i < 4; ++i) name[i] = static_cast<char>((type >> (8 * (3 - i))) & 0xff);
  return name;
}

bool KoStatsReader::isKnownType(uint32_t type) {
  switch (type) {
    case KO_EXIF_SESSION_HEADER: case KO_EXIF_SESSION_DATA:
    case KO_EXIF_SEQUENCE_HEADER: case KO_EXIF_SEQUENCE_DATA:
    case KO_EXIF_FRAME_HEADER: case KO_EXIF_FRAME_DATA:
    case KO_EXIF_FACE_HEADER: case KO_EXIF_FACE_DATA:
    case KO_EXIF_HISTOGRAM_HEADER: case KO_EXIF_HISTOGRAM_DATA:
    case KO_EXIF_RAW_HEADER: case KO_EXIF_RAW_DATA:
      return true;
    default:
      return false;
  }
}

std::vector<std::string> KoStatsReader::splitValues(const std::string& text) {
  std::vector<std::string> tokens;
  size_t start = 0;
  while (start < text.size()) {
    const size_t sep = text.find(kSeparator, start);
    if (sep == std::string::npos) {
      tokens.push_back(text.substr(start));
      break;
    }
    tokens.push_back(text.substr(start, sep - start));
    start = sep + 2;
  }
  return tokens;
}

bool KoStatsReader::splitHeader(const std::string& line, std::vector<Column>& out) {
  out.clear();
  for (const std::string& piece : splitValues(line)) {
    const size_t blank = piece.find(' ');
    if (blank == std::string::npos || blank == 0 || blank + 1 >= piece.size()) return false;
    Column c;
    c.key = piece.substr(0, blank);
    c.format = piece.substr(blank + 1);
    if (c.format[0] != '%' || c.format.find(' ') != std::string::npos) return false;
    switch (c.format.back()) {
      case 'd': case 'i': case 'u': case 'x': case 'X':
        c.type = VALUE_INT;
        break;
      case 'f': case 'F': case 'e': case 'E': case 'g': case 'G':
        c.type = VALUE_FLOAT;
        break;
      case 's': case 'c':
        c.type = VALUE_TEXT;
        break;
      default:
        return false;
    }
    const size_t point = c.format.find('.');
    if (c.type == VALUE_FLOAT && point != std::string::npos) {
      c.precision = atoi(c.format.c_str() + point + 1);
    }
    out.push_back(c);
  }
  return true;
}

bool KoStatsReader::parseValue(const std::string& token, const Column& column, Value& out) {
  out = Value();
  out.type = column.type;
  out.text = token;
  if (column.type == VALUE_TEXT) return true;
  if (token.empty() || token[0] == ' ') return false;
  const char* begin = token.c_str();
  char* end = nullptr;
  errno = 0;
  if (column.type == VALUE_FLOAT) {
    out.f = strtod(begin, &end);
    return end == begin + token.size();
  }
  const char conv = column.format.back();
  const bool wide = column.format.find("ll") != std::string::npos ||
                    column.format.find('j') != std::string::npos;
  if (conv == 'd' || conv == 'i') {
    const long long v = strtoll(begin, &end, 10);
    if (end != begin + token.size() || errno == ERANGE) return false;
    if (!wide && (v < INT32_MIN || v > INT32_MAX)) return false;
    out.i = v;
    return true;
  }
  if (token[0] == '-') return false;
  const unsigned long long v = strtoull(begin, &end, conv == 'u' ? 10 : 16);
  if (end != begin + token.size() || errno == ERANGE) return false;
  if ((!wide && v > UINT32_MAX) || v > static_cast<unsigned long long>(INT64_MAX)) return false;
  out.i = static_cast<int64_t>(v);
  return true;
}

// ---- Reading

KoStatsReader::KoStatsReader() {
  mDefaultColumns[SECTION_SESSION] =
      columnsOfTable(KoStatsData::sSessionDataHeader, KoStatsData::SESSION_ROWS);
  mDefaultColumns[SECTION_SEQUENCE] =
      columnsOfTable(KoStatsData::sSequenceDataHeader, KoStatsData::SEQUENCE_ROWS);
  mDefaultColumns[SECTION_FRAME] =
      columnsOfTable(KoStatsData::sFrameDataHeader, KoStatsData::FRAME_ROWS);
  mDefaultColumns[SECTION_FACE] =
      columnsOfTable(KoStatsData::sFaceDataHeader, KoStatsData::FACE_ROWS);
  mDefaultColumns[SECTION_HISTOGRAM] =
      columnsOfTable(KoStatsData::sHistogramDataHeader, KoStatsData::HISTOGRAM_ROWS);
  mDefaultColumns[SECTION_RAW] =
      columnsOfTable(KoStatsData::sRawYUVDataHeader, KoStatsData::RAW_ROWS);
  reset();
}

void KoStatsReader::reset() {
  mData.clear();
  mExifPrefix = false;
  mError.clear();
  mSegments.clear();
  for (int s = 0; s < SECTION_COUNT; ++s) {
    mColumns[s].clear();
    mHeaderSeen[s] = false;
    mDataSeen[s] = false;
  }
  mHasSession = false;
  mSession = Row();
  mHasSequence = false;
  mSequence = Row();
  mFrames.clear();
  mFaceGroups.clear();
  mHistograms.clear();
  mRawImages.clear();
}

bool KoStatsReader::fail(const std::string& text) {
  if (mError.empty()) mError = text;
  return false;
}

const std::vector<KoStatsReader::Column>& KoStatsReader::columns(uint32_t headerType) const {
  static const std::vector<Column> kNone;
  switch (headerType) {
    case KO_EXIF_SESSION_HEADER: return mColumns[SECTION_SESSION];
    case KO_EXIF_SEQUENCE_HEADER: return mColumns[SECTION_SEQUENCE];
    case KO_EXIF_FRAME_HEADER: return mColumns[SECTION_FRAME];
    case KO_EXIF_FACE_HEADER: return mColumns[SECTION_FACE];
    case KO_EXIF_HISTOGRAM_HEADER: return mColumns[SECTION_HISTOGRAM];
    case KO_EXIF_RAW_HEADER: return mColumns[SECTION_RAW];
    default: return kNone;
  }
}

const std::vector<KoStatsReader::Column>& KoStatsReader::columnsFor(Section section) {
  return mColumns[section].empty() ? mDefaultColumns[section] : mColumns[section];
}

bool KoStatsReader::parseFile(const char* path) {
  reset();
  FILE* f = path != nullptr ? fopen(path, "rb") : nullptr;
  if (f == nullptr) return fail(std::string("cannot open ") + (path ? path : "(null)"));
  std::vector<uint8_t> content;
  uint8_t chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) content.insert(content.end(), chunk, chunk + n);
  const bool readError = ferror(f) != 0;
  fclose(f);
  if (readError) return fail(std::string("cannot read ") + path);
  return parse(content.data(), content.size());
}

bool KoStatsReader::parse(const void* data, size_t size) {
  reset();
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  if (bytes == nullptr || size == 0) return fail("empty record");
  // EXIF history block: 16-bit 3, 16-bit 0, then the record. A record never starts with a
  // segment size of 3.
  if (size >= 4 && readLe32(bytes) == 3) {
    mExifPrefix = true;
    bytes += 4;
    size -= 4;
  }
  mData.assign(bytes, bytes + size);

  size_t pos = 0;
  while (pos < mData.size()) {
    const size_t left = mData.size() - pos;
    if (left < KO_EXIF_SEGMENT_HEADER_SIZE) {
      for (size_t i = pos; i < mData.size(); ++i) {
        if (mData[i] != 0) return fail("truncated segment header at " + offsetText(pos));
      }
      break;
    }
    Segment seg;
    seg.offset = pos;
    seg.size = readLe32(&mData[pos]);
    seg.type = readLe32(&mData[pos + 4]);
    seg.version = readLe32(&mData[pos + 8]);
    if (seg.size == 0 && seg.type == 0 && seg.version == 0) {
      // Zero fill after the last segment (the rest of a fixed-size buffer).
      for (size_t i = pos; i < mData.size(); ++i) {
        if (mData[i] != 0) return fail("data after zero fill at " + offsetText(pos));
      }
      break;
    }
    if (seg.size < KO_EXIF_SEGMENT_HEADER_SIZE) {
      return fail("segment size " + std::to_string(seg.size) + " below 12 at " + offsetText(pos));
    }
    if (seg.size > left) {
      return fail("segment size " + std::to_string(seg.size) + " beyond the record end (" +
                  std::to_string(left) + " bytes left) at " + offsetText(pos));
    }
    if (!isKnownType(seg.type)) {
      char text[16];
      snprintf(text, sizeof(text), "0x%08x", seg.type);
      return fail(std::string("unknown segment type ") + text + " at " + offsetText(pos));
    }
    if (seg.version != KO_EXIF_SEGMENT_VERSION) {
      return fail("unsupported segment version " + std::to_string(seg.version) + " of " +
                  typeName(seg.type) + " at " + offsetText(pos));
    }
    seg.payloadSize = seg.size - KO_EXIF_SEGMENT_HEADER_SIZE;
    mSegments.push_back(seg);
    if (!readSegment(seg)) return false;
    pos += seg.size;
  }
  if (mSegments.empty()) return fail("no segments");
  return true;
}

bool KoStatsReader::readSegment(const Segment& seg) {
  Section section;
  bool header;
  switch (seg.type) {
    case KO_EXIF_SESSION_HEADER: section = SECTION_SESSION; header = true; break;
    case KO_EXIF_SESSION_DATA: section = SECTION_SESSION; header = false; break;
    case KO_EXIF_SEQUENCE_HEADER: section = SECTION_SEQUENCE; header = true; break;
    case KO_EXIF_SEQUENCE_DATA: section = SECTION_SEQUENCE; header = false; break;
    case KO_EXIF_FRAME_HEADER: section = SECTION_FRAME; header = true; break;
    case KO_EXIF_FRAME_DATA: section = SECTION_FRAME; header = false; break;
    case KO_EXIF_FACE_HEADER: section = SECTION_FACE; header = true; break;
    case KO_EXIF_FACE_DATA: section = SECTION_FACE; header = false; break;
    case KO_EXIF_HISTOGRAM_HEADER: section = SECTION_HISTOGRAM; header = true; break;
    case KO_EXIF_HISTOGRAM_DATA: section = SECTION_HISTOGRAM; header = false; break;
    case KO_EXIF_RAW_HEADER: section = SECTION_RAW; header = true; break;
    default: section = SECTION_RAW; header = false; break;
  }
  const std::string where = typeName(seg.type) + " at " + offsetText(seg.offset);

  if (section == SECTION_RAW && !header) return readRaw(seg);

  // Every other payload is one NUL-terminated text, or nothing when its writer failed.
  std::string text;
  if (seg.payloadSize > 0) {
    const char* payload = reinterpret_cast<const char*>(mData.data() + seg.offset + 12);
    if (payload[seg.payloadSize - 1] != '\0' ||
        memchr(payload, '\0', seg.payloadSize - 1) != nullptr) {
      return fail("payload of " + where + " is not one NUL-terminated text");
    }
    text.assign(payload, seg.payloadSize - 1);
  }

  if (header) {
    if (mHeaderSeen[section]) return fail("second header segment " + where);
    mHeaderSeen[section] = true;
    if (!text.empty() && !splitHeader(text, mColumns[section])) {
      return fail("malformed header line in " + where);
    }
    return true;
  }

  if (!mHeaderSeen[section]) return fail("data without its header segment: " + where);
  if (mDataSeen[section]) return fail("second data segment " + where);
  mDataSeen[section] = true;
  if (text.empty()) return true;  // the section's writer failed; nothing to read
  bool ok;
  switch (section) {
    case SECTION_FACE: ok = readFaces(text); break;
    case SECTION_HISTOGRAM: ok = readHistograms(text); break;
    default: ok = readRows(section, text); break;
  }
  if (!ok) mError += " (" + where + ")";
  return ok;
}

bool KoStatsReader::readRow(const std::vector<Column>& columns,
                            const std::vector<std::string>& tokens, size_t first, size_t count,
                            Row& row, const char* what) {
  row = Row();
  for (size_t k = 0; k < count; ++k) {
    const Column& column = columns[k];
    Value value;
    if (!parseValue(tokens[first + k], column, value)) {
      return fail(std::string("bad value \"") + tokens[first + k] + "\" for " + column.key + " " +
                  column.format + " in " + what);
    }
    row.fields.emplace_back(column.key, value);
  }
  return true;
}

// Number of values of the line starting at tokens[pos] ("numElements").
static bool lineCount(const std::vector<std::string>& tokens, size_t pos, int64_t& count) {
  char* end = nullptr;
  const char* begin = tokens[pos].c_str();
  errno = 0;
  const long long v = strtoll(begin, &end, 10);
  if (tokens[pos].empty() || end != begin + tokens[pos].size() || errno == ERANGE) return false;
  count = v;
  return true;
}

bool KoStatsReader::readRows(Section section, const std::string& text) {
  const std::vector<Column>& columns = columnsFor(section);
  const std::vector<std::string> tokens = splitValues(text);
  const char* what = section == SECTION_SESSION    ? "session"
                     : section == SECTION_SEQUENCE ? "sequence"
                                                   : "frame";
  size_t pos = 0;
  while (pos < tokens.size()) {
    int64_t n = 0;
    if (!lineCount(tokens, pos, n)) return fail(std::string("bad numElements in ") + what);
    if (n != static_cast<int64_t>(columns.size())) {
      return fail(std::string("numElements ") + std::to_string(n) + " of a " + what +
                  " line does not match its " + std::to_string(columns.size()) + " columns");
    }
    if (pos + n > tokens.size()) return fail(std::string("truncated ") + what + " line");
    Row row;
    if (!readRow(columns, tokens, pos, n, row, what)) return false;
    pos += n;
    if (section == SECTION_FRAME) {
      mFrames.push_back(row);
    } else if (pos != tokens.size()) {
      return fail(std::string("more than one ") + what + " line");
    } else if (section == SECTION_SESSION) {
      const Value* version = row.find("exifFormatVersion");
      if (version != nullptr && version->text != KoStatsData::kExifFormatVersion) {
        return fail("unsupported exifFormatVersion \"" + version->text + "\"");
      }
      mSession = row;
      mHasSession = true;
    } else {
      mSequence = row;
      mHasSequence = true;
    }
  }
  return true;
}

bool KoStatsReader::readFaces(const std::string& text) {
  const std::vector<Column>& columns = columnsFor(SECTION_FACE);
  size_t groupColumns = 0;
  while (groupColumns < columns.size() && columns[groupColumns].key != "face.id") ++groupColumns;
  if (groupColumns == 0 || groupColumns >= columns.size()) {
    return fail("face header has no \"face.id\" column");
  }
  const std::vector<Column> group(columns.begin(), columns.begin() + groupColumns);
  const std::vector<Column> face(columns.begin() + groupColumns, columns.end());
  const std::vector<std::string> tokens = splitValues(text);
  size_t pos = 0;
  while (pos < tokens.size()) {
    int64_t n = 0;
    if (!lineCount(tokens, pos, n)) return fail("bad numElements in face group");
    const int64_t perFace = static_cast<int64_t>(face.size());
    if (n < static_cast<int64_t>(group.size()) || (n - static_cast<int64_t>(group.size())) % perFace != 0) {
      return fail("numElements " + std::to_string(n) + " of a face group is not " +
                  std::to_string(group.size()) + " + " + std::to_string(perFace) + " per face");
    }
    const int64_t faces = (n - static_cast<int64_t>(group.size())) / perFace;
    if (faces > KoStatsData::MAX_PRINTED_FACES) {
      return fail("face group with " + std::to_string(faces) + " printed faces");
    }
    if (pos + n > tokens.size()) return fail("truncated face group");
    FaceGroup g;
    if (!readRow(group, tokens, pos, group.size(), g.group, "face group")) return false;
    pos += group.size();
    for (int64_t k = 0; k < faces; ++k) {
      Row row;
      if (!readRow(face, tokens, pos, face.size(), row, "face")) return false;
      g.faces.push_back(row);
      pos += face.size();
    }
    mFaceGroups.push_back(g);
  }
  return true;
}

bool KoStatsReader::readHistograms(const std::string& text) {
  const std::vector<Column>& columns = columnsFor(SECTION_HISTOGRAM);
  const std::vector<std::string> tokens = splitValues(text);
  Column binColumn;
  binColumn.key = "bin";
  binColumn.format = "%d";
  binColumn.type = VALUE_INT;
  size_t pos = 0;
  while (pos < tokens.size()) {
    int64_t n = 0;
    if (!lineCount(tokens, pos, n)) return fail("bad numElements in histogram");
    if (n < static_cast<int64_t>(columns.size())) return fail("histogram line too short");
    if (pos + n > tokens.size()) return fail("truncated histogram line");
    Histogram h;
    if (!readRow(columns, tokens, pos, columns.size(), h.header, "histogram")) return false;
    pos += columns.size();
    const int64_t bins = n - static_cast<int64_t>(columns.size());
    if (h.header.has("numBins") && h.header.getInt("numBins") != bins) {
      return fail("numBins " + std::to_string(h.header.getInt("numBins")) + " but " +
                  std::to_string(bins) + " bin values");
    }
    for (int64_t b = 0; b < bins; ++b) {
      Value v;
      if (!parseValue(tokens[pos], binColumn, v)) return fail("bad histogram bin \"" + tokens[pos] + "\"");
      h.bins.push_back(v.i);
      ++pos;
    }
    mHistograms.push_back(h);
  }
  return true;
}

bool KoStatsReader::readRaw(const Segment& seg) {
  const std::string where = typeName(seg.type) + " at " + offsetText(seg.offset);
  mDataSeen[SECTION_RAW] = true;
  if (seg.payloadSize == 0) return fail("raw image segment without a header line in " + where);
  const char* payload = reinterpret_cast<const char*>(mData.data() + seg.offset + 12);
  const void* nul = memchr(payload, '\0', seg.payloadSize);
  if (nul == nullptr) return fail("raw image line without NUL in " + where);
  const size_t lineLength = static_cast<const char*>(nul) - payload;
  const std::string line(payload, lineLength);
  const std::vector<Column>& columns = columnsFor(SECTION_RAW);
  const std::vector<std::string> tokens = splitValues(line);
  if (tokens.size() != columns.size()) {
    return fail("raw image line has " + std::to_string(tokens.size()) + " values for " +
                std::to_string(columns.size()) + " columns in " + where);
  }
  RawImage image;
  if (!readRow(columns, tokens, 0, tokens.size(), image.header, "raw image")) {
    mError += " (" + where + ")";
    return false;
  }
  image.pixelOffset = seg.offset + 12 + lineLength + 1;
  image.pixelSize = seg.payloadSize - lineLength - 1;
  if (image.header.has("size") &&
      image.header.getInt("size") != static_cast<int64_t>(image.pixelSize)) {
    return fail("raw image size " + std::to_string(image.header.getInt("size")) + " but " +
                std::to_string(image.pixelSize) + " pixel bytes in " + where);
  }
  mRawImages.push_back(image);
  return true;
}

// ---- JSON

std::string KoStatsReader::toJson() const {
  std::string out = "{\"exifBlock\":";
  out += mExifPrefix ? "true" : "false";
  out += ",\"segments\":[";
  for (size_t i = 0; i < mSegments.size(); ++i) {
    const Segment& s = mSegments[i];
    if (i > 0) out += ',';
    out += "{\"offset\":";
    jsonInt(out, static_cast<int64_t>(s.offset));
    out += ",\"type\":";
    jsonString(out, typeName(s.type));
    out += ",\"size\":";
    jsonInt(out, s.size);
    out += ",\"version\":";
    jsonInt(out, s.version);
    out += '}';
  }
  out += "],\"session\":";
  if (mHasSession) {
    jsonRow(out, mSession, precisionsOf(mColumns[SECTION_SESSION]));
  } else {
    out += "null";
  }
  out += ",\"sequence\":";
  if (mHasSequence) {
    jsonRow(out, mSequence, precisionsOf(mColumns[SECTION_SEQUENCE]));
  } else {
    out += "null";
  }
  const Precisions frameColumns = precisionsOf(
      mColumns[SECTION_FRAME].empty() ? mDefaultColumns[SECTION_FRAME] : mColumns[SECTION_FRAME]);
  out += ",\"frames\":[";
  for (size_t i = 0; i < mFrames.size(); ++i) {
    if (i > 0) out += ',';
    jsonRow(out, mFrames[i], frameColumns);
  }
  const Precisions faceColumns = precisionsOf(
      mColumns[SECTION_FACE].empty() ? mDefaultColumns[SECTION_FACE] : mColumns[SECTION_FACE]);
  out += "],\"faces\":[";
  for (size_t i = 0; i < mFaceGroups.size(); ++i) {
    if (i > 0) out += ',';
    out += '{';
    jsonRowMembers(out, mFaceGroups[i].group, faceColumns);
    out += ",\"faces\":[";
    for (size_t k = 0; k < mFaceGroups[i].faces.size(); ++k) {
      if (k > 0) out += ',';
      jsonRow(out, mFaceGroups[i].faces[k], faceColumns);
    }
    out += "]}";
  }
  out += "],\"histograms\":[";
  const Precisions histogramColumns = precisionsOf(mColumns[SECTION_HISTOGRAM]);
  for (size_t i = 0; i < mHistograms.size(); ++i) {
    if (i > 0) out += ',';
    out += '{';
    jsonRowMembers(out, mHistograms[i].header, histogramColumns);
    out += ",\"bins\":[";
    for (size_t b = 0; b < mHistograms[i].bins.size(); ++b) {
      if (b > 0) out += ',';
      jsonInt(out, mHistograms[i].bins[b]);
    }
    out += "]}";
  }
  out += "],\"raw\":[";
  const Precisions rawColumns = precisionsOf(mColumns[SECTION_RAW]);
  for (size_t i = 0; i < mRawImages.size(); ++i) {
    if (i > 0) out += ',';
    out += '{';
    jsonRowMembers(out, mRawImages[i].header, rawColumns);
    out += ",\"pixelBytes\":";
    jsonInt(out, static_cast<int64_t>(mRawImages[i].pixelSize));
    out += '}';
  }
  out += ']';
  if (!mError.empty()) {
    out += ",\"error\":";
    jsonString(out, mError);
  }
  out += "}\n";
  return out;
}

}  // namespace android
