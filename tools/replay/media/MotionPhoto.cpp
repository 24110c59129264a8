#include "MotionPhoto.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace kovane_replay {

namespace {

constexpr char kCameraNs[] = "http://ns.google.com/photos/1.0/camera/";
constexpr char kContainerNs[] = "http://ns.google.com/photos/1.0/container/";
constexpr char kItemNs[] = "http://ns.google.com/photos/1.0/container/item/";

// APP1 payload headers: the standard XMP packet, its continuation chunks, and Exif.
// Each is followed by a NUL in the segment, which sizeof() counts.
constexpr char kXmpHeader[] = "http://ns.adobe.com/xap/1.0/";
constexpr char kXmpExtensionHeader[] = "http://ns.adobe.com/xmp/extension/";
constexpr char kExifHeader[] = "Exif\0";

constexpr uint8_t kSOI = 0xD8, kEOI = 0xD9, kSOS = 0xDA, kAPP0 = 0xE0, kAPP1 = 0xE1, kTEM = 0x01;

bool setError(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

uint32_t be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

bool isRst(uint8_t marker) { return marker >= 0xD0 && marker <= 0xD7; }

// One marker segment of a JPEG: the FF byte at `offset`, `size` bytes including the marker.
struct Segment {
  uint8_t marker = 0;
  size_t offset = 0;
  size_t size = 0;
};

// Where the parts of a JPEG lie: the segments between SOI and the first scan, the first scan's
// SOS offset, and the offset just past EOI.
struct JpegLayout {
  std::vector<Segment> header;
  size_t scanStart = 0;
  size_t end = 0;
};

// An APP1 segment whose payload starts with `prefix` (including its terminating NUL).
bool isApp1With(const std::vector<uint8_t>& d, const Segment& s, const char* prefix, size_t prefixLen) {
  return s.marker == kAPP1 && s.size >= 4 + prefixLen && memcmp(&d[s.offset + 4], prefix, prefixLen) == 0;
}
bool isXmp(const std::vector<uint8_t>& d, const Segment& s) {
  return isApp1With(d, s, kXmpHeader, sizeof(kXmpHeader));
}
bool isXmpExtension(const std::vector<uint8_t>& d, const Segment& s) {
  return isApp1With(d, s, kXmpExtensionHeader, sizeof(kXmpExtensionHeader));
}
bool isExif(const std::vector<uint8_t>& d, const Segment& s) {
  return isApp1With(d, s, kExifHeader, sizeof(kExifHeader));
}

// Walks the JPEG's marker segments and entropy-coded data up to its EOI. Segment lengths are
// followed, so thumbnails inside Exif (with their own SOI/EOI) are skipped as a whole; in scan
// data, stuffed bytes (FF 00), restart markers and fill bytes are stepped over.
bool scanJpeg(const std::vector<uint8_t>& d, JpegLayout& out, std::string* error) {
  const size_t n = d.size();
  if (n < 4 || d[0] != 0xFF || d[1] != kSOI) return setError(error, "not a JPEG (no SOI marker at the start)");
  out = JpegLayout();
  bool inHeader = true;
  size_t p = 2;
  while (true) {
    if (p + 2 > n) return setError(error, "the JPEG has no EOI marker (truncated?)");
    if (d[p] != 0xFF) {
      return setError(error, "the JPEG is broken: no marker at byte " + std::to_string(p));
    }
    const uint8_t marker = d[p + 1];
    if (marker == 0xFF) {  // fill byte before a marker
      ++p;
      continue;
    }
    if (marker == kEOI) {
      if (inHeader) out.scanStart = p;
      out.end = p + 2;
      return true;
    }
    if (marker == kSOI || marker == 0x00) {
      return setError(error, "the JPEG is broken: unexpected marker at byte " + std::to_string(p));
    }
    if (isRst(marker) || marker == kTEM) {  // markers without a length
      p += 2;
      continue;
    }
    if (p + 4 > n) return setError(error, "the JPEG has no EOI marker (truncated?)");
    const size_t len = (size_t{d[p + 2]} << 8) | d[p + 3];
    if (len < 2 || p + 2 + len > n) {
      return setError(error, "the JPEG is truncated inside the segment at byte " + std::to_string(p));
    }
    if (marker == kSOS && inHeader) {
      inHeader = false;
      out.scanStart = p;
    }
    if (inHeader) out.header.push_back({marker, p, 2 + len});
    p += 2 + len;
    if (marker == kSOS) {
      // Entropy-coded data runs up to the next marker that is not a stuffed byte or restart.
      while (p + 1 < n) {
        if (d[p] != 0xFF) {
          ++p;
        } else if (d[p + 1] == 0x00 || isRst(d[p + 1])) {
          p += 2;
        } else if (d[p + 1] == 0xFF) {
          ++p;
        } else {
          break;
        }
      }
    }
  }
}

// Every MP4 is a chain of boxes (32-bit size, 4-char type; size 1: a 64-bit size follows,
// size 0: up to the end) that starts with ftyp and ends exactly at the end of the file.
bool checkMp4(const std::vector<uint8_t>& d, std::string* error) {
  const size_t n = d.size();
  if (n == 0) return setError(error, "the clip is empty");
  if (n < 8 || memcmp(&d[4], "ftyp", 4) != 0) {
    return setError(error, "not an MP4 clip (it does not start with an ftyp box)");
  }
  size_t p = 0;
  while (p < n) {
    if (n - p < 8) return setError(error, "the MP4 clip ends inside a box header (truncated?)");
    uint64_t size = be32(&d[p]);
    size_t headerSize = 8;
    if (size == 1) {
      if (n - p < 16) return setError(error, "the MP4 clip ends inside a box header (truncated?)");
      size = (uint64_t{be32(&d[p + 8])} << 32) | be32(&d[p + 12]);
      headerSize = 16;
    } else if (size == 0) {
      size = n - p;
    }
    if (size < headerSize || size > n - p) {
      std::string type;
      for (int i = 4; i < 8; ++i) {
        type += (d[p + i] >= 0x20 && d[p + i] < 0x7F) ? static_cast<char>(d[p + i]) : '?';
      }
      return setError(error, "the MP4 clip's '" + type + "' box at byte " + std::to_string(p) +
                                 " runs past the end of the clip (truncated?)");
    }
    p += static_cast<size_t>(size);
  }
  return true;
}

// The packet: Camera properties on the description, the directory as an ordered list of items.
std::string buildXmp(int64_t presentationTimestampUs, int64_t videoLength) {
  static const char kFormat[] = R"(<?xpacket begin="%s" id="W5M0MpCehiHzreSzNTczkc9d"?>
<x:xmpmeta xmlns:x="adobe:ns:meta/">
 <rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#">
  <rdf:Description rdf:about=""
    xmlns:Camera="%s"
    xmlns:Container="%s"
    xmlns:Item="%s"
    Camera:MotionPhoto="1"
    Camera:MotionPhotoVersion="1"
    Camera:MotionPhotoPresentationTimestampUs="%)" PRId64 R"(">
   <Container:Directory>
    <rdf:Seq>
     <rdf:li rdf:parseType="Resource">
      <Container:Item Item:Mime="image/jpeg" Item:Semantic="Primary" Item:Length="0" Item:Padding="0"/>
     </rdf:li>
     <rdf:li rdf:parseType="Resource">
      <Container:Item Item:Mime="video/mp4" Item:Semantic="MotionPhoto" Item:Length="%)" PRId64 R"("/>
     </rdf:li>
    </rdf:Seq>
   </Container:Directory>
  </rdf:Description>
 </rdf:RDF>
</x:xmpmeta>
<?xpacket end="w"?>)";
  char packet[2048];
  const int n = snprintf(packet, sizeof(packet), kFormat, "\xEF\xBB\xBF", kCameraNs, kContainerNs, kItemNs,
                         presentationTimestampUs, videoLength);
  return std::string(packet, static_cast<size_t>(n));
}

bool readFile(const std::string& path, std::vector<uint8_t>& out, std::string* error) {
  out.clear();
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return setError(error, "cannot read " + path + ": " + strerror(errno));
  uint8_t buf[65536];
  size_t got;
  while ((got = fread(buf, 1, sizeof(buf), f)) > 0) out.insert(out.end(), buf, buf + got);
  const bool failed = ferror(f) != 0;
  const int savedErrno = errno;
  fclose(f);
  if (failed) return setError(error, "cannot read " + path + ": " + strerror(savedErrno));
  return true;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The value of attribute `name` (a qualified name) in text[from, to), "" and false when absent.
// Entity references are not expanded: the values read here are numbers and plain tokens.
bool findAttribute(const std::string& text, size_t from, size_t to, const std::string& name, std::string& value) {
  for (size_t p = text.find(name, from); p != std::string::npos && p < to; p = text.find(name, p + 1)) {
    if (p == 0 || !isSpace(text[p - 1])) continue;
    size_t q = p + name.size();
    while (q < to && isSpace(text[q])) ++q;
    if (q >= to || text[q] != '=') continue;
    ++q;
    while (q < to && isSpace(text[q])) ++q;
    if (q >= to || (text[q] != '"' && text[q] != '\'')) continue;
    const size_t close = text.find(text[q], q + 1);
    if (close == std::string::npos || close >= to) return false;
    value = text.substr(q + 1, close - q - 1);
    return true;
  }
  return false;
}

// A property written either as an attribute or as a simple element (<name>value</name>).
bool findProperty(const std::string& text, const std::string& name, std::string& value) {
  if (findAttribute(text, 0, text.size(), name, value)) return true;
  const size_t open = text.find("<" + name + ">");
  if (open == std::string::npos) return false;
  const size_t start = open + name.size() + 2;
  const size_t end = text.find('<', start);
  if (end == std::string::npos) return false;
  value = text.substr(start, end - start);
  while (!value.empty() && isSpace(value.back())) value.pop_back();
  while (!value.empty() && isSpace(value.front())) value.erase(0, 1);
  return true;
}

bool toInt64(const std::string& s, int64_t& v) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long long parsed = strtoll(s.c_str(), &end, 10);
  if (errno != 0 || end == s.c_str() || *end != '\0') return false;
  v = parsed;
  return true;
}

// Namespace URI -> the prefix the packet binds to it (XMP readers match by URI, not prefix).
std::map<std::string, std::string> namespacePrefixes(const std::string& text) {
  std::map<std::string, std::string> prefixes;
  const std::string decl = "xmlns:";
  for (size_t p = text.find(decl); p != std::string::npos; p = text.find(decl, p + 1)) {
    size_t q = p + decl.size();
    const size_t nameStart = q;
    while (q < text.size() && !isSpace(text[q]) && text[q] != '=') ++q;
    const std::string prefix = text.substr(nameStart, q - nameStart);
    while (q < text.size() && isSpace(text[q])) ++q;
    if (q >= text.size() || text[q] != '=') continue;
    ++q;
    while (q < text.size() && isSpace(text[q])) ++q;
    if (q >= text.size() || (text[q] != '"' && text[q] != '\'')) continue;
    const size_t close = text.find(text[q], q + 1);
    if (close == std::string::npos) break;
    prefixes.emplace(text.substr(q + 1, close - q - 1), prefix);
  }
  return prefixes;
}

// Which input a composing failure is about.
enum class Culprit { kNone, kPicture, kClip };

bool composeBytes(const std::vector<uint8_t>& jpeg, const std::vector<uint8_t>& mp4,
                  int64_t presentationTimestampUs, std::vector<uint8_t>& out, std::string* error,
                  Culprit& culprit) {
  culprit = Culprit::kNone;
  if (presentationTimestampUs < -1) {
    return setError(error, "the presentation timestamp must be -1 (unknown) or at least 0, not " +
                               std::to_string(presentationTimestampUs));
  }
  JpegLayout layout;
  culprit = Culprit::kPicture;
  if (!scanJpeg(jpeg, layout, error)) return false;
  culprit = Culprit::kClip;
  if (!checkMp4(mp4, error)) return false;
  culprit = Culprit::kNone;

  const std::string packet = buildXmp(presentationTimestampUs, static_cast<int64_t>(mp4.size()));
  const size_t segmentLength = 2 + sizeof(kXmpHeader) + packet.size();
  if (segmentLength > 0xFFFF) return setError(error, "the XMP packet does not fit in one JPEG segment");
  std::vector<uint8_t> xmp;
  xmp.reserve(2 + segmentLength);
  xmp.insert(xmp.end(), {0xFF, kAPP1, static_cast<uint8_t>(segmentLength >> 8),
                         static_cast<uint8_t>(segmentLength & 0xFF)});
  xmp.insert(xmp.end(), kXmpHeader, kXmpHeader + sizeof(kXmpHeader));
  xmp.insert(xmp.end(), packet.begin(), packet.end());

  // JFIF's APP0 and Exif's APP1 must come first after SOI; the XMP goes right after them. Any
  // XMP the picture carried is dropped: two packets would leave readers to pick one.
  out.clear();
  out.reserve(layout.end + xmp.size() + mp4.size());
  out.insert(out.end(), {0xFF, kSOI});
  bool inserted = false;
  for (const Segment& s : layout.header) {
    if (isXmp(jpeg, s) || isXmpExtension(jpeg, s)) continue;
    if (!inserted && s.marker != kAPP0 && !isExif(jpeg, s)) {
      out.insert(out.end(), xmp.begin(), xmp.end());
      inserted = true;
    }
    out.insert(out.end(), jpeg.begin() + s.offset, jpeg.begin() + s.offset + s.size);
  }
  if (!inserted) out.insert(out.end(), xmp.begin(), xmp.end());
  // The scans up to EOI unchanged; whatever followed EOI is not part of the picture.
  out.insert(out.end(), jpeg.begin() + layout.scanStart, jpeg.begin() + layout.end);
  out.insert(out.end(), mp4.begin(), mp4.end());
  return true;
}

}  // namespace

std::string MotionPhoto::xmpPacket(const std::vector<uint8_t>& jpeg) {
  JpegLayout layout;
  if (!scanJpeg(jpeg, layout, nullptr)) return "";
  for (const Segment& s : layout.header) {
    if (isXmp(jpeg, s)) {
      const size_t start = s.offset + 4 + sizeof(kXmpHeader);
      return std::string(reinterpret_cast<const char*>(&jpeg[start]), s.offset + s.size - start);
    }
  }
  return "";
}

bool MotionPhoto::compose(const std::vector<uint8_t>& jpeg, const std::vector<uint8_t>& mp4,
                          int64_t presentationTimestampUs, std::vector<uint8_t>& out, std::string* error) {
  std::string why;
  Culprit culprit;
  if (composeBytes(jpeg, mp4, presentationTimestampUs, out, &why, culprit)) return true;
  const char* prefix = culprit == Culprit::kPicture ? "picture: " : culprit == Culprit::kClip ? "clip: " : "";
  return setError(error, prefix + why);
}

bool MotionPhoto::write(const std::string& jpegPath, const std::string& mp4Path, int64_t presentationTimestampUs,
                        const std::string& outPath, std::string* error) {
  std::vector<uint8_t> jpeg, mp4, bytes;
  if (!readFile(jpegPath, jpeg, error) || !readFile(mp4Path, mp4, error)) return false;
  std::string why;
  Culprit culprit;
  if (!composeBytes(jpeg, mp4, presentationTimestampUs, bytes, &why, culprit)) {
    if (culprit == Culprit::kPicture) why = jpegPath + ": " + why;
    if (culprit == Culprit::kClip) why = mp4Path + ": " + why;
    return setError(error, why);
  }

  // Written beside the target and renamed, so the target is either complete or untouched.
  std::vector<char> tmp(outPath.begin(), outPath.end());
  const std::string suffix = ".tmp-XXXXXX";
  tmp.insert(tmp.end(), suffix.begin(), suffix.end());
  tmp.push_back('\0');
  const int fd = mkstemp(tmp.data());
  if (fd < 0) return setError(error, "cannot write " + outPath + ": " + strerror(errno));
  bool ok = true;
  int savedErrno = 0;
  size_t done = 0;
  while (ok && done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      savedErrno = n < 0 ? errno : EIO;
    } else {
      done += static_cast<size_t>(n);
    }
  }
  if (ok && fchmod(fd, 0644) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (close(fd) != 0 && ok) {
    ok = false;
    savedErrno = errno;
  }
  if (ok && rename(tmp.data(), outPath.c_str()) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (!ok) {
    unlink(tmp.data());
    return setError(error, "cannot write " + outPath + ": " + strerror(savedErrno));
  }
  return true;
}

bool MotionPhoto::parse(const std::vector<uint8_t>& bytes, Info* out, std::string* error) {
  Info info;
  info.fileSize = static_cast<int64_t>(bytes.size());
  JpegLayout layout;
  if (!scanJpeg(bytes, layout, error)) return false;
  info.primaryEnd = static_cast<int64_t>(layout.end);
  const std::string xmp = xmpPacket(bytes);
  if (xmp.empty()) return setError(error, "not a motion photo: the picture has no XMP metadata");

  const auto prefixes = namespacePrefixes(xmp);
  const auto prefixOf = [&prefixes](const char* uri) {
    const auto it = prefixes.find(uri);
    return it == prefixes.end() ? std::string() : it->second;
  };
  const std::string camera = prefixOf(kCameraNs), container = prefixOf(kContainerNs), item = prefixOf(kItemNs);
  std::string value;
  int64_t number = 0;
  if (camera.empty() || !findProperty(xmp, camera + ":MotionPhoto", value)) {
    return setError(error, "not a motion photo: no Camera:MotionPhoto in the XMP");
  }
  if (!toInt64(value, number)) return setError(error, "bad Camera:MotionPhoto value '" + value + "'");
  info.motionPhoto = static_cast<int>(number);
  if (info.motionPhoto != 1) return setError(error, "not a motion photo: Camera:MotionPhoto is " + value);
  if (findProperty(xmp, camera + ":MotionPhotoVersion", value)) {
    if (!toInt64(value, number)) return setError(error, "bad Camera:MotionPhotoVersion value '" + value + "'");
    info.version = static_cast<int>(number);
  }
  if (findProperty(xmp, camera + ":MotionPhotoPresentationTimestampUs", value) &&
      !toInt64(value, info.presentationTimestampUs)) {
    return setError(error, "bad Camera:MotionPhotoPresentationTimestampUs value '" + value + "'");
  }

  // The directory's items, in order.
  if (!container.empty() && !item.empty()) {
    const std::string tag = "<" + container + ":Item";
    for (size_t p = xmp.find(tag); p != std::string::npos; p = xmp.find(tag, p + 1)) {
      const size_t after = p + tag.size();
      if (after >= xmp.size() || !(isSpace(xmp[after]) || xmp[after] == '/' || xmp[after] == '>')) continue;
      const size_t end = xmp.find('>', after);
      if (end == std::string::npos) break;
      Item it;
      findAttribute(xmp, after, end, item + ":Mime", it.mime);
      findAttribute(xmp, after, end, item + ":Semantic", it.semantic);
      if (findAttribute(xmp, after, end, item + ":Length", value) &&
          (!toInt64(value, it.length) || it.length < 0)) {
        return setError(error, "bad Item:Length value '" + value + "'");
      }
      if (findAttribute(xmp, after, end, item + ":Padding", value) &&
          (!toInt64(value, it.padding) || it.padding < 0)) {
        return setError(error, "bad Item:Padding value '" + value + "'");
      }
      info.items.push_back(it);
    }
  }
  size_t video = info.items.size();
  for (size_t i = 1; i < info.items.size() && video == info.items.size(); ++i) {
    if (info.items[i].semantic == "MotionPhoto") video = i;
  }
  if (video == info.items.size()) {
    return setError(error, "not a motion photo: no MotionPhoto item in the XMP directory");
  }
  if (info.items[0].semantic != "Primary") {
    return setError(error, "the XMP directory does not start with the Primary item");
  }

  // Items after the primary lie back to back at the end of the file.
  int64_t tail = 0;
  for (size_t i = video; i < info.items.size(); ++i) {
    if (info.items[i].length <= 0 || info.items[i].length > info.fileSize - tail) {
      return setError(error, "the XMP directory's item lengths do not fit the file");
    }
    tail += info.items[i].length;
  }
  info.videoLength = info.items[video].length;
  info.videoOffset = info.fileSize - tail;
  if (info.videoOffset < info.primaryEnd + info.items[0].padding) {
    return setError(error, "the clip's length in the XMP reaches into the picture");
  }
  const size_t at = static_cast<size_t>(info.videoOffset);
  if (info.videoLength < 8 || memcmp(&bytes[at + 4], "ftyp", 4) != 0) {
    return setError(error, "no MP4 clip at byte " + std::to_string(at) + " where the XMP places it");
  }
  if (out) *out = info;
  return true;
}

bool MotionPhoto::parse(const std::string& path, Info* out, std::string* error) {
  std::vector<uint8_t> bytes;
  if (!readFile(path, bytes, error)) return false;
  std::string why;
  if (!parse(bytes, out, &why)) return setError(error, path + ": " + why);
  return true;
}

}  // namespace kovane_replay
