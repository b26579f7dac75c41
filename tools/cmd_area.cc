// Subcommands that go through the library's public calls: area data, start-up,
// repair set-up and the diagnostic dump.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tool.h"

namespace sbacc_tool {

namespace {

// An area opened through the public interface, closed on every way out.
class Handle {
 public:
  Handle(const std::string& area, const char* mode) {
    boolean_t closeflag = B_TRUE;
    int rc = sbacc_open(area.c_str(), mode, &fp_, &closeflag);
    if (rc != 0) throw LibError(area + ": sbacc_open(\"" + mode + "\")", rc);
  }
  ~Handle() {
    if (fp_ != nullptr) sbacc_close(fp_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  sbacc_fd* fp() { return fp_; }
  void Close(const std::string& area) {
    int rc = sbacc_close(fp_);
    fp_ = nullptr;
    if (rc != 0) throw LibError(area + ": sbacc_close", rc);
  }

 private:
  void* fp_ = nullptr;
};

void CheckFits(const SBACC_FILE_LIST_ENTRY& e, int64_t end, const std::string& what) {
  if (end > Capacity(e)) {
    throw UsageError(what + " would end at byte " + std::to_string(end) + ", but " + e.filename + " holds at most " +
                     std::to_string(Capacity(e)) + " bytes");
  }
}

// The copies NV records fenced off (0 when NV knows nothing of the area).
uint32_t Fenced(const SBACC_FILE_LIST_ENTRY& e) {
  AreaProbe p(e, O_RDONLY);
  return p.nv_valid ? p.nv.hddblockade : 0;
}

// A write that fenced a copy off succeeded, but the area lost a copy: said on
// standard error, and the exit status says degraded.
int AfterWrite(const char* command, const SBACC_FILE_LIST_ENTRY& e, uint32_t before) {
  const uint32_t now = Fenced(e);
  int status = kExitOk;
  for (int j = 0; j < e.hddcount && j < SBACC_HDD_MAX; ++j) {
    if ((now & ~before & (1u << j)) == 0) continue;
    fprintf(stderr,
            "sbacc: %s: warning: copy %d of %s (%s) failed and was fenced off by this write; the data is on the "
            "other copies (see 'sbacc status %s')\n",
            command, j, e.filename, e.hddname[j], e.filename);
    status = kExitDegraded;
  }
  return status;
}

}  // namespace

int CmdCat(const std::string& area) {
  const SBACC_FILE_LIST_ENTRY& e = FindArea(area);
  CheckNvImage("cat");
  Handle h(area, "r");
  int size = sbacc_read_size(h.fp());
  if (size < 0) throw LibError(area + ": sbacc_read_size", size);
  // A header's size past the area's end is refused by the read below; no
  // buffer of that size is made first.
  size = static_cast<int>(std::min<uint64_t>(static_cast<uint64_t>(size), Capacity(e) + 1));
  std::vector<uint8_t> buf(static_cast<size_t>(size));
  int done = 0;
  while (done < size) {
    int n = sbacc_read(buf.data() + done, size - done, done, h.fp());
    if (n < 0) throw LibError(area + ": sbacc_read", n);
    if (n == 0) break;
    done += n;
  }
  h.Close(area);
  if (fwrite(buf.data(), 1, static_cast<size_t>(done), stdout) != static_cast<size_t>(done) || fflush(stdout) != 0) {
    fprintf(stderr, "sbacc: cat %s: writing standard output: %s\n", area.c_str(), strerror(errno));
    return kExitError;
  }
  return kExitOk;
}

int CmdPut(const std::string& area, const std::string& file) {
  const SBACC_FILE_LIST_ENTRY& e = FindArea(area);
  const std::vector<uint8_t> data = ReadInput(file);
  const int n = static_cast<int>(data.size());
  CheckFits(e, static_cast<int64_t>(data.size()), "the data");
  const uint32_t before = Fenced(e);
  Handle h(area, "w");
  if (n > 0) {
    int rc = sbacc_write(data.data(), n, 0, h.fp());
    if (rc != n) throw LibError(area + ": sbacc_write", rc < 0 ? rc : SBACC_E_HDDWRITE);
  }
  // The size last: a shorter put must not leave the old tail readable.
  int rc = sbacc_write_size(n, h.fp());
  if (rc != n) throw LibError(area + ": sbacc_write_size", rc < 0 ? rc : SBACC_E_HDDWRITE);
  h.Close(area);
  printf("%s: %d bytes\n", area.c_str(), n);
  return AfterWrite("put", e, before);
}

int CmdWrite(const std::string& area, int offset, const std::string& file) {
  const SBACC_FILE_LIST_ENTRY& e = FindArea(area);
  const std::vector<uint8_t> data = ReadInput(file);
  CheckFits(e, static_cast<int64_t>(offset) + static_cast<int64_t>(data.size()), "the write");
  const int n = static_cast<int>(data.size());
  const uint32_t before = Fenced(e);
  if (n > 0) {  // the library refuses a write of 0 bytes; nothing to do is not an error here
    Handle h(area, "w");
    int rc = sbacc_write(data.data(), n, offset, h.fp());
    if (rc != n) throw LibError(area + ": sbacc_write", rc < 0 ? rc : SBACC_E_HDDWRITE);
    h.Close(area);
  }
  printf("%s: %d bytes at offset %d\n", area.c_str(), n, offset);
  return AfterWrite("write", e, before);
}

int CmdTruncate(const std::string& area, int size) {
  const SBACC_FILE_LIST_ENTRY& e = FindArea(area);
  CheckFits(e, size, "the size");
  const uint32_t before = Fenced(e);
  Handle h(area, "w");
  int rc = sbacc_write_size(size, h.fp());
  if (rc != size) throw LibError(area + ": sbacc_write_size", rc < 0 ? rc : SBACC_E_HDDWRITE);
  h.Close(area);
  printf("%s: size %d\n", area.c_str(), size);
  return AfterWrite("truncate", e, before);
}

int CmdHold(const std::string& area, const std::string& file) {
  const SBACC_FILE_LIST_ENTRY& e = FindArea(area);
  const std::vector<uint8_t> data = file.empty() ? std::vector<uint8_t>() : ReadInput(file);
  CheckFits(e, static_cast<int64_t>(data.size()), "the data");
  Handle h(area, "w");
  if (!data.empty()) {
    const int n = static_cast<int>(data.size());
    int rc = sbacc_write(data.data(), n, 0, h.fp());
    if (rc != n) throw LibError(area + ": sbacc_write", rc < 0 ? rc : SBACC_E_HDDWRITE);
  }
  // The line tells a waiting script that the area is open now.
  printf("holding %s open for writing (pid %d)\n", area.c_str(), static_cast<int>(getpid()));
  fflush(stdout);
  for (;;) pause();
}

int CmdRepairInit(int given) {
  Areas();
  const int controller = ControllerNumber(given, true);
  int rc = sbacc_repair_init(controller);
  if (rc != 0) throw LibError("sbacc_repair_init", rc);
  printf("repair locks of controller %d cleared\n", controller);
  return kExitOk;
}

// Without a file the dump goes to standard output: the library only writes
// (appends) to a named file, so it dumps into a private temporary file that
// is copied out and removed.
int CmdDump(const std::string& file) {
  Areas();
  CheckNvImage("dump");
  if (!file.empty() && file != "-") {
    std::vector<char> path(file.begin(), file.end());
    path.push_back('\0');
    int rc = sbacc_dumpout(path.data());
    if (rc != 0) throw LibError("sbacc_dumpout " + file, rc);
    printf("dump appended to %s\n", file.c_str());
    return kExitOk;
  }
  const char* tmpdir = getenv("TMPDIR");
  std::string tmpl = std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp") + "/sbacc-dump-XXXXXX";
  std::vector<char> path(tmpl.begin(), tmpl.end());
  path.push_back('\0');
  int fd = mkstemp(path.data());
  if (fd < 0) {
    fprintf(stderr, "sbacc: dump: cannot create a temporary file in %s: %s\n", tmpl.c_str(), strerror(errno));
    return kExitError;
  }
  close(fd);
  int rc = sbacc_dumpout(path.data());
  if (rc != 0) {
    unlink(path.data());
    throw LibError("sbacc_dumpout", rc);
  }
  FILE* in = fopen(path.data(), "rb");
  bool ok = in != nullptr;
  if (ok) {
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in)) > 0) {
      if (fwrite(buf, 1, n, stdout) != n) ok = false;
    }
    fclose(in);
  }
  unlink(path.data());
  if (!ok || fflush(stdout) != 0) {
    fprintf(stderr, "sbacc: dump: copying to standard output: %s\n", strerror(errno));
    return kExitError;
  }
  return kExitOk;
}

}  // namespace sbacc_tool
