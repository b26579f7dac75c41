// sbacc verify: byte-for-byte comparison of the usable copies of each area,
// which the library's start-up never does (it trusts the headers), and with
// --repair a rewrite of every copy that differs from the one an open would
// read.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "sbacc_core.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"
#include "scrub.h"
#include "tool.h"

namespace sbacc_tool {

namespace {

constexpr int kChunk = 64 * 1024;

// Data bytes [0, n) of copy j.
int ReadData(SBACC_FILE_DISCRIPTER* sfd, int j, int64_t n, std::vector<uint8_t>* out) {
  out->assign(static_cast<size_t>(n), 0);
  for (int64_t off = 0; off < n; off += kChunk) {
    const int len = static_cast<int>(std::min<int64_t>(kChunk, n - off));
    int rc = sbacc_l_hddget_data(sfd, j, static_cast<int>(off), out->data() + off, len);
    if (rc != 0) return rc;
  }
  return 0;
}

// The copy an open would read from: the library's own latest-copy rule over
// the usable copies, run on duplicates of their descriptors because the rule
// closes the copies it rejects.
int ChooseReference(AreaProbe& p, const std::vector<int>& usable) {
  SBACC_FILE_DISCRIPTER scratch = *p.sfd();
  SBACC_HDD_HEADER headers[SBACC_HDD_MAX];
  memset(headers, 0, sizeof headers);
  for (int& fd : scratch.fd) fd = -1;
  for (int j : usable) {
    scratch.fd[j] = dup(p.sfd()->fd[j]);
    headers[j] = p.copies[static_cast<size_t>(j)].hdr;
  }
  int ref = usable.front();
  sbacc_ma_detect_hdd(&scratch, headers, &ref);
  for (int fd : scratch.fd) {
    if (fd >= 0) close(fd);
  }
  return ref;
}

struct Difference {
  std::vector<std::string> fields;  // header fields that differ
  int64_t first = -1;               // first differing data offset
  int64_t count = 0;                // differing data bytes
  int read_rc = 0;                  // the copy's data could not be read
  bool any() const { return !fields.empty() || count > 0 || read_rc != 0; }
};

// Compares copy c with the reference, whose data bytes [0, ref_data.size())
// are at hand.  The data compared runs to the larger of the two filesizes, so
// a copy that claims more data than the reference shows the excess too.
Difference Compare(AreaProbe& p, const CopyProbe& ref, const std::vector<uint8_t>& ref_data,
                   const CopyProbe& c) {
  Difference d;
  d.fields = HeaderFieldsDiffering(ref.raw, c.raw);
  const int64_t n = std::clamp<int64_t>(std::max(ref.hdr.filesize, c.hdr.filesize), 0,
                                        static_cast<int64_t>(ref_data.size()));
  std::vector<uint8_t> data;
  d.read_rc = ReadData(p.sfd(), c.index, n, &data);
  if (d.read_rc != 0) return d;
  for (int64_t i = 0; i < n; ++i) {
    if (data[static_cast<size_t>(i)] != ref_data[static_cast<size_t>(i)]) {
      if (d.first < 0) d.first = i;
      ++d.count;
    }
  }
  return d;
}

std::string Describe(const Difference& d) {
  std::string out;
  if (!d.fields.empty()) {
    out = "header field";
    out += d.fields.size() > 1 ? "s " : " ";
    for (size_t i = 0; i < d.fields.size(); ++i) out += (i ? ", " : "") + d.fields[i];
  }
  if (d.read_rc != 0) {
    out += (out.empty() ? "" : "; ") + std::string("data unreadable: ") + CodeString(d.read_rc);
  } else if (d.count > 0) {
    out += (out.empty() ? "" : "; ") + std::to_string(d.count) + " data byte" + (d.count > 1 ? "s" : "") +
           " differ" + (d.count > 1 ? "" : "s") + ", the first at offset " + std::to_string(d.first);
  }
  return out;
}

// Rewrites copy dst from the reference.  The magic goes first and comes back
// last, each write flushed, so a copy interrupted half-way has an invalid
// header and is rebuilt at the next start-up instead of being trusted.
int Rewrite(AreaProbe& p, const CopyProbe& ref, const std::vector<uint8_t>& ref_data, int dst) {
  SBACC_FILE_DISCRIPTER* sfd = p.sfd();
  const uint8_t no_magic[4] = {0, 0, 0, 0};
  int rc = sbacc_l_hddset(sfd, dst, kHdrMagic, no_magic, sizeof no_magic);
  if (rc != 0) return rc;
  const int64_t n = std::clamp<int64_t>(ref.hdr.filesize, 0, static_cast<int64_t>(ref_data.size()));
  for (int64_t off = 0; off < n; off += kChunk) {
    const int len = static_cast<int>(std::min<int64_t>(kChunk, n - off));
    rc = sbacc_l_hddset_data(sfd, dst, static_cast<int>(off), ref_data.data() + off, len);
    if (rc != 0) return rc;
  }
  rc = sbacc_l_hddset(sfd, dst, kHdrVersion, ref.raw + kHdrVersion, SBACC_HEADER_SIZE - kHdrVersion);
  if (rc != 0) return rc;
  return sbacc_l_hddset(sfd, dst, kHdrMagic, ref.raw + kHdrMagic, 4);
}

struct Tally {
  int areas = 0;
  int compared = 0;
  int mismatches = 0;
  int repaired = 0;
  bool found = false;  // something wrong that is still wrong
  bool error = false;  // a library call failed
};

void VerifyArea(AreaProbe& p, bool repair, Tally& t, Progress& progress) {
  const char* name = p.entry().filename;
  auto report = [&](const std::string& line) {
    progress.Clear();
    printf("%s: %s\n", name, line.c_str());
    fflush(stdout);
  };

  if (p.nv_rc != 0) {
    progress.Clear();
    fprintf(stderr, "sbacc: verify %s: NV entry: %s\n", name, CodeString(p.nv_rc).c_str());
    t.error = true;
    return;
  }
  std::vector<int> usable;
  for (const CopyProbe& c : p.copies) {
    if (c.usable()) usable.push_back(c.index);
  }
  if (usable.empty()) {
    report("no usable copy to verify");
    t.found = true;
    return;
  }
  if (usable.size() == 1) {
    report("only copy " + std::to_string(usable.front()) + " is usable, nothing to compare");
    return;
  }

  const int ref_index = ChooseReference(p, usable);
  const CopyProbe& ref = p.copies[static_cast<size_t>(ref_index)];
  // Enough reference data for the longest copy (never past the capacity).
  int64_t longest = 0;
  for (int j : usable) longest = std::max<int64_t>(longest, p.copies[static_cast<size_t>(j)].hdr.filesize);
  std::vector<uint8_t> ref_data;
  int rc = ReadData(p.sfd(), ref_index, std::min(longest, Capacity(p.entry())), &ref_data);
  if (rc != 0) {
    progress.Clear();
    fprintf(stderr, "sbacc: verify %s: reading copy %d: %s\n", name, ref_index, CodeString(rc).c_str());
    t.error = true;
    return;
  }

  for (int j : usable) {
    if (j == ref_index) continue;
    ++t.compared;
    const Difference d = Compare(p, ref, ref_data, p.copies[static_cast<size_t>(j)]);
    if (!d.any()) continue;
    ++t.mismatches;
    report("copy " + std::to_string(j) + " differs from copy " + std::to_string(ref_index) + ": " + Describe(d));
    if (!repair) {
      t.found = true;
      continue;
    }
    rc = Rewrite(p, ref, ref_data, j);
    if (rc != 0) {
      report("copy " + std::to_string(j) + " could not be rewritten: " + CodeString(rc));
      t.error = true;
      continue;
    }
    // Read back what landed before calling it repaired.
    CopyProbe& c = p.copies[static_cast<size_t>(j)];
    rc = sbacc_l_hddget(p.sfd(), j, 0, c.raw, SBACC_HEADER_SIZE);
    if (rc == 0) sbacc_l_decode_header(c.raw, &c.hdr);
    const Difference after = Compare(p, ref, ref_data, c);
    if (rc != 0 || after.any()) {
      report("copy " + std::to_string(j) + " still differs after the rewrite");
      t.found = true;
    } else {
      report("copy " + std::to_string(j) + " rewritten from copy " + std::to_string(ref_index));
      ++t.repaired;
    }
  }
}

}  // namespace

int CmdVerify(const std::vector<std::string>& names, bool repair, int controller) {
  const auto selected = SelectAreas(names);
  // The repair lock is per controller; this is the byte it raises.
  sbacc_cntno = controller;
  Tally t;
  Progress progress("verify", selected.size());
  for (const SBACC_FILE_LIST_ENTRY* e : selected) {
    progress.Step(e->filename);
    ++t.areas;
    try {
      AreaProbe probe(*e, repair ? O_RDWR : O_RDONLY);
      if (!repair) {
        VerifyArea(probe, false, t, progress);
        continue;
      }
      // Compare and rewrite under the lock, so no other controller rebuilds
      // the same copies meanwhile; what was read before the lock is re-read.
      int rc = sbacc_ma_enter_repairlock(probe.sfd());
      if (rc != 0) throw LibError(std::string(e->filename) + ": repair lock", rc);
      probe.Refresh();
      VerifyArea(probe, true, t, progress);
      rc = sbacc_ma_leave_repairlock(probe.sfd());
      if (rc != 0) throw LibError(std::string(e->filename) + ": releasing the repair lock", rc);
    } catch (const LibError& err) {
      progress.Clear();
      fprintf(stderr, "sbacc: verify %s\n", err.what());
      t.error = true;
    }
  }
  progress.Clear();
  printf("verify: %d area%s, %d cop%s compared, %d mismatch%s", t.areas, t.areas == 1 ? "" : "s", t.compared,
         t.compared == 1 ? "y" : "ies", t.mismatches, t.mismatches == 1 ? "" : "es");
  if (repair) printf(", %d repaired", t.repaired);
  printf("\n");
  const int status = t.error ? kExitError : (t.found ? kExitFound : kExitOk);
  KeepScrubRecord({t.areas, t.compared, t.mismatches, t.repaired, status});
  return status;
}

}  // namespace sbacc_tool
