// Plain, gzip, bzip2, zip and 7z streams through their libraries.
#include "io/stream.h"

#include <archive.h>
#include <archive_entry.h>
#include <bzlib.h>
#include <zlib.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <unistd.h>

namespace vrx {

namespace {

const char* const kKinds[] = {"",     ".mps", ".rew", ".lp",  ".rlp", ".ilp", ".mst", ".sol",
                              ".bas", ".prm", ".qps", ".ord", ".sum", ".opb", ".hnt"};
const char* const kCompressions[] = {"", ".gz", ".bz2", ".zip", ".7z"};
constexpr int kNumKinds = 15;
constexpr int kNumCompressions = 5;
constexpr size_t kBufSize = 1 << 18;

bool endsWithNoCase(const char* name, size_t len, const char* suffix) {
  size_t s = std::strlen(suffix);
  return s <= len && strncasecmp(name + len - s, suffix, s) == 0;
}

}  // namespace

int compressionOf(const char* name) {
  size_t len = std::strlen(name);
  for (int c = 1; c < kNumCompressions; ++c)
    if (endsWithNoCase(name, len, kCompressions[c])) return c;
  return 0;
}

size_t stemLength(const char* name) {
  size_t len = std::strlen(name);
  int c = compressionOf(name);
  return c ? len - std::strlen(kCompressions[c]) : len;
}

int fileKind(const char* name) {
  if (!name) return -1;
  size_t len = std::strlen(name);
  // A base name without any dot has no suffix at all: kind 0.
  const char* base = std::strrchr(name, '/');
  base = base ? base + 1 : name;
  if (!std::strchr(base, '.')) return 0;
  for (int k = 1; k < kNumKinds; ++k)
    for (int c = 0; c < kNumCompressions; ++c) {
      char suffix[16];
      std::snprintf(suffix, sizeof suffix, "%s%s", kKinds[k], kCompressions[c]);
      if (endsWithNoCase(name, len, suffix)) return k;
    }
  return -1;
}

struct Stream {
  VRXenv* env;
  char mode;
  int kind;  // compression index
  FILE* plain;
  gzFile gz;
  BZFILE* bz;
  FILE* bzRaw;
  struct archive* ar;
  char* path;  // archive target when writing
  unsigned char* buf;
  size_t cap;
  size_t len;  // bytes in buf
  size_t pos;  // read position in buf
  bool eof;
  bool failed;
};

namespace {

// Fills the read buffer; false at the end of the data.
bool refill(Stream* s) {
  if (s->eof) return false;
  if (s->pos < s->len) {
    std::memmove(s->buf, s->buf + s->pos, s->len - s->pos);
    s->len -= s->pos;
  } else {
    s->len = 0;
  }
  s->pos = 0;
  size_t room = s->cap - s->len;
  long got = 0;
  switch (s->kind) {
    case 0: got = static_cast<long>(std::fread(s->buf + s->len, 1, room, s->plain)); break;
    case 1: got = gzread(s->gz, s->buf + s->len, static_cast<unsigned>(room)); break;
    case 2: {
      int bzerr = BZ_OK;
      got = BZ2_bzRead(&bzerr, s->bz, s->buf + s->len, static_cast<int>(room));
      if (bzerr != BZ_OK && bzerr != BZ_STREAM_END) got = -1;
      if (bzerr == BZ_STREAM_END) {
        // Reading past the end of a bzip2 stream is an error of its own.
        s->len += static_cast<size_t>(got > 0 ? got : 0);
        s->eof = true;
        return got > 0;
      }
      break;
    }
    default: got = static_cast<long>(archive_read_data(s->ar, s->buf + s->len, room)); break;
  }
  if (got < 0) {
    s->failed = true;
    got = 0;
  }
  if (got == 0) s->eof = true;
  s->len += static_cast<size_t>(got);
  return got > 0;
}

bool flushOut(Stream* s) {
  if (s->len == 0 || s->kind >= 3) return !s->failed;
  bool ok = true;
  switch (s->kind) {
    case 0: ok = std::fwrite(s->buf, 1, s->len, s->plain) == s->len; break;
    case 1: ok = gzwrite(s->gz, s->buf, static_cast<unsigned>(s->len)) == static_cast<int>(s->len); break;
    case 2: {
      int bzerr = BZ_OK;
      BZ2_bzWrite(&bzerr, s->bz, s->buf, static_cast<int>(s->len));
      ok = bzerr == BZ_OK;
      break;
    }
    default: break;
  }
  s->len = 0;
  if (!ok) s->failed = true;
  return ok;
}

bool grow(Stream* s, size_t need) {
  if (need <= s->cap) return true;
  size_t cap = s->cap * 2 > need ? s->cap * 2 : need;
  void* p = envRealloc(s->env, s->buf, cap);
  if (!p) return false;
  s->buf = static_cast<unsigned char*>(p);
  s->cap = cap;
  return true;
}

void freeStream(Stream* s) {
  VRXenv* env = s->env;
  envFree(env, s->buf);
  envFree(env, s->path);
  envFree(env, s);
}

}  // namespace

Stream* streamOpen(VRXenv* env, const char* name, char mode, int* err) {
  int failCode = mode == 'w' ? VRX_ERROR_FILE_WRITE : VRX_ERROR_FILE_READ;
  *err = 0;
  auto* s = static_cast<Stream*>(envCalloc(env, 1, sizeof(Stream)));
  if (!s) {
    *err = VRX_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }
  s->env = env;
  s->mode = mode;
  s->kind = compressionOf(name);
  s->cap = kBufSize;
  s->buf = static_cast<unsigned char*>(envMalloc(env, s->cap));
  if (!s->buf) {
    freeStream(s);
    *err = VRX_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }
  bool ok = false;
  if (mode == 'w' && s->kind != 0) {
    // Test the path with the plain name first.
    FILE* t = std::fopen(name, "w");
    if (!t) {
      std::fprintf(stderr, "cannot write to %s: Permission denied\n", name);
      freeStream(s);
      *err = failCode;
      return nullptr;
    }
    std::fclose(t);
    std::remove(name);
  }
  switch (s->kind) {
    case 0:
      s->plain = std::fopen(name, mode == 'w' ? "w" : "r");
      ok = s->plain != nullptr;
      break;
    case 1:
      s->gz = gzopen(name, mode == 'w' ? "wb6" : "rb");
      ok = s->gz != nullptr;
      if (ok && mode == 'r') gzbuffer(s->gz, 1 << 17);
      break;
    case 2: {
      s->bzRaw = std::fopen(name, mode == 'w' ? "wb" : "rb");
      if (s->bzRaw) {
        int bzerr = BZ_OK;
        s->bz = mode == 'w' ? BZ2_bzWriteOpen(&bzerr, s->bzRaw, 9, 0, 0)
                            : BZ2_bzReadOpen(&bzerr, s->bzRaw, 0, 0, nullptr, 0);
        ok = bzerr == BZ_OK && s->bz;
        if (!ok) std::fclose(s->bzRaw);
      }
      break;
    }
    default:
      if (mode == 'w') {
        // Archive members need their size up front: collect, then write at close.
        s->path = envStrdup(env, name);
        ok = s->path != nullptr;
        if (!ok) {
          freeStream(s);
          *err = VRX_ERROR_OUT_OF_MEMORY;
          return nullptr;
        }
      } else {
        s->ar = archive_read_new();
        if (s->ar) {
          archive_read_support_format_zip(s->ar);
          archive_read_support_format_7zip(s->ar);
          archive_read_support_filter_all(s->ar);
          struct archive_entry* entry = nullptr;
          ok = archive_read_open_filename(s->ar, name, 1 << 16) == ARCHIVE_OK &&
               archive_read_next_header(s->ar, &entry) == ARCHIVE_OK;
          if (!ok) archive_read_free(s->ar);
        }
      }
      break;
  }
  if (!ok) {
    freeStream(s);
    *err = failCode;
    return nullptr;
  }
  return s;
}

char* streamGets(Stream* s, char* buf, int size) {
  int len = 0;
  return streamGetLine(s, buf, size, &len);
}

char* streamGetLine(Stream* s, char* buf, int size, int* len) {
  *len = 0;
  if (size <= 0) return nullptr;
  int n = 0;
  while (n < size - 1) {
    if (s->pos >= s->len && !refill(s)) break;
    const unsigned char* start = s->buf + s->pos;
    size_t avail = s->len - s->pos;
    size_t want = static_cast<size_t>(size - 1 - n);
    if (want > avail) want = avail;
    const void* nl = std::memchr(start, '\n', want);
    size_t take = nl ? static_cast<size_t>(static_cast<const unsigned char*>(nl) - start) + 1 : want;
    std::memcpy(buf + n, start, take);
    n += static_cast<int>(take);
    s->pos += take;
    if (nl) break;
  }
  if (n == 0) return nullptr;
  buf[n] = '\0';
  *len = n;
  return buf;
}

size_t streamRead(Stream* s, void* out, size_t n) {
  size_t done = 0;
  auto* dst = static_cast<unsigned char*>(out);
  while (done < n) {
    if (s->pos >= s->len && !refill(s)) break;
    size_t take = s->len - s->pos;
    if (take > n - done) take = n - done;
    std::memcpy(dst + done, s->buf + s->pos, take);
    s->pos += take;
    done += take;
  }
  return done;
}

int streamWrite(Stream* s, const void* data, size_t n) {
  if (s->failed) return VRX_ERROR_FILE_WRITE;
  if (s->kind >= 3) {
    if (!grow(s, s->len + n)) return VRX_ERROR_OUT_OF_MEMORY;
    std::memcpy(s->buf + s->len, data, n);
    s->len += n;
    return 0;
  }
  if (s->len + n > s->cap && !flushOut(s)) return VRX_ERROR_FILE_WRITE;
  if (n > s->cap) {
    const auto* src = static_cast<const unsigned char*>(data);
    while (n > 0) {
      size_t take = n < s->cap ? n : s->cap;
      std::memcpy(s->buf, src, take);
      s->len = take;
      if (!flushOut(s)) return VRX_ERROR_FILE_WRITE;
      src += take;
      n -= take;
    }
    return 0;
  }
  std::memcpy(s->buf + s->len, data, n);
  s->len += n;
  return 0;
}

int streamPrintf(Stream* s, const char* fmt, ...) {
  char small[1024];
  va_list ap;
  va_start(ap, fmt);
  va_list ap2;
  va_copy(ap2, ap);
  int n = std::vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  int rc = 0;
  if (n < 0) {
    rc = VRX_ERROR_FILE_WRITE;
  } else if (static_cast<size_t>(n) < sizeof small) {
    rc = streamWrite(s, small, static_cast<size_t>(n));
  } else {
    char* big = static_cast<char*>(envMalloc(s->env, static_cast<size_t>(n) + 1));
    if (!big) {
      rc = VRX_ERROR_OUT_OF_MEMORY;
    } else {
      std::vsnprintf(big, static_cast<size_t>(n) + 1, fmt, ap2);
      rc = streamWrite(s, big, static_cast<size_t>(n));
      envFree(s->env, big);
    }
  }
  va_end(ap2);
  return rc;
}

namespace {

int writeArchive(Stream* s) {
  struct archive* a = archive_write_new();
  if (!a) return VRX_ERROR_FILE_WRITE;
  int r = s->kind == 3 ? archive_write_set_format_zip(a) : archive_write_set_format_7zip(a);
  bool ok = r == ARCHIVE_OK && archive_write_open_filename(a, s->path) == ARCHIVE_OK;
  if (ok) {
    // The member is named as the file without its compression suffix.
    const char* base = std::strrchr(s->path, '/');
    base = base ? base + 1 : s->path;
    char member[4096];
    size_t stem = stemLength(base);
    if (stem >= sizeof member) stem = sizeof member - 1;
    std::memcpy(member, base, stem);
    member[stem] = '\0';
    struct archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, member);
    archive_entry_set_size(e, static_cast<la_int64_t>(s->len));
    archive_entry_set_filetype(e, AE_IFREG);
    archive_entry_set_perm(e, 0644);
    ok = archive_write_header(a, e) == ARCHIVE_OK &&
         (s->len == 0 ||
          archive_write_data(a, s->buf, s->len) == static_cast<la_ssize_t>(s->len));
    archive_entry_free(e);
  }
  if (archive_write_close(a) != ARCHIVE_OK) ok = false;
  archive_write_free(a);
  return ok ? 0 : VRX_ERROR_FILE_WRITE;
}

}  // namespace

int streamClose(Stream* s) {
  if (!s) return 0;
  int rc = 0;
  if (s->mode == 'w') {
    if (s->kind >= 3) {
      rc = s->failed ? VRX_ERROR_FILE_WRITE : writeArchive(s);
    } else if (!flushOut(s)) {
      rc = VRX_ERROR_FILE_WRITE;
    }
  } else if (s->failed) {
    rc = VRX_ERROR_FILE_READ;
  }
  int closeFail = 0;
  switch (s->kind) {
    case 0:
      if (s->plain && std::fclose(s->plain) != 0) closeFail = 1;
      break;
    case 1:
      if (s->gz && gzclose(s->gz) != Z_OK) closeFail = 1;
      break;
    case 2: {
      int bzerr = BZ_OK;
      if (s->mode == 'w') {
        BZ2_bzWriteClose(&bzerr, s->bz, 0, nullptr, nullptr);
      } else {
        BZ2_bzReadClose(&bzerr, s->bz);
      }
      if (bzerr != BZ_OK) closeFail = 1;
      if (std::fclose(s->bzRaw) != 0) closeFail = 1;
      break;
    }
    default:
      if (s->ar) archive_read_free(s->ar);
      break;
  }
  if (closeFail && !rc) rc = s->mode == 'w' ? VRX_ERROR_FILE_WRITE : VRX_ERROR_FILE_READ;
  freeStream(s);
  return rc;
}

}  // namespace vrx
