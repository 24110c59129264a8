// Prints a capture statistics record as JSON.
//
//   kostats_dump [--check] <file | ->
//
// The file holds a record as the statistics writer lays it (a buffer, or what it wrote to its
// file descriptor, raw image sections included) or an EXIF history block, which starts with
// the 16-bit values 3 and 0. "-" reads standard input. With --check nothing is printed; the
// exit status alone tells whether the record is well-formed.
//
// Exit status: 0 record read, 1 malformed record (the JSON then has an "error" member with what
// was read up to the fault), 2 usage or file errors.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KoStatsReader.h"

namespace {

void usage(const char* self) {
  fprintf(stderr, "usage: %s [--check] <record file | ->\n", self);
}

bool readAll(FILE* f, std::vector<uint8_t>& out) {
  uint8_t chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) out.insert(out.end(), chunk, chunk + n);
  return ferror(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool checkOnly = false;
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--check") == 0) {
      checkOnly = true;
    } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      usage(argv[0]);
      return 0;
    } else if (path == nullptr) {
      path = argv[i];
    } else {
      usage(argv[0]);
      return 2;
    }
  }
  if (path == nullptr) {
    usage(argv[0]);
    return 2;
  }

  std::vector<uint8_t> content;
  if (strcmp(path, "-") == 0) {
    if (!readAll(stdin, content)) {
      fprintf(stderr, "%s: cannot read standard input\n", argv[0]);
      return 2;
    }
  } else {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) {
      fprintf(stderr, "%s: cannot open %s: %s\n", argv[0], path, strerror(errno));
      return 2;
    }
    const bool ok = readAll(f, content);
    fclose(f);
    if (!ok) {
      fprintf(stderr, "%s: cannot read %s\n", argv[0], path);
      return 2;
    }
  }

  android::KoStatsReader reader;
  const bool ok = reader.parse(content.data(), content.size());
  if (!checkOnly) fputs(reader.toJson().c_str(), stdout);
  if (!ok) {
    fprintf(stderr, "%s: %s\n", argv[0], reader.error().c_str());
    return 1;
  }
  return 0;
}
