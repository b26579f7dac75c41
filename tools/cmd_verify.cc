// sbacc verify: byte-for-byte comparison of the usable copies of each area,
// which the library's start-up never does (it trusts the headers), with each
// copy checked against its integrity record, and with --repair a rewrite of
// every copy that differs from the one the records or the headers show right.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include <nlohmann/json.hpp>

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
// Like every repair, it looks at its repair lock before each write and stops
// once the lock is lost (the copy then has no magic and is rebuilt later).
int Rewrite(AreaProbe& p, const CopyProbe& ref, const std::vector<uint8_t>& ref_data, int dst) {
  SBACC_FILE_DISCRIPTER* sfd = p.sfd();
  const uint8_t no_magic[4] = {0, 0, 0, 0};
  int rc = sbacc_ma_repairlock_check(sfd);
  if (rc == 0) rc = sbacc_l_hddset(sfd, dst, kHdrMagic, no_magic, sizeof no_magic);
  if (rc != 0) return rc;
  const int64_t n = std::clamp<int64_t>(ref.hdr.filesize, 0, static_cast<int64_t>(ref_data.size()));
  for (int64_t off = 0; off < n; off += kChunk) {
    const int len = static_cast<int>(std::min<int64_t>(kChunk, n - off));
    rc = sbacc_ma_repairlock_check(sfd);
    if (rc == 0) rc = sbacc_l_hddset_data(sfd, dst, static_cast<int>(off), ref_data.data() + off, len);
    if (rc != 0) return rc;
  }
  rc = sbacc_ma_repairlock_check(sfd);
  if (rc == 0) rc = sbacc_l_hddset(sfd, dst, kHdrVersion, ref.raw + kHdrVersion, SBACC_HEADER_SIZE - kHdrVersion);
  if (rc == 0) rc = sbacc_ma_repairlock_check(sfd);
  return rc != 0 ? rc : sbacc_l_hddset(sfd, dst, kHdrMagic, ref.raw + kHdrMagic, 4);
}

struct Tally {
  int areas = 0;
  int compared = 0;
  int mismatches = 0;
  int repaired = 0;
  int skipped = 0;
  int status = 0;  // the gravest of the areas' outcomes
};

// What the copies hold that a reader sees: the size and the data up to it.
bool SameContent(const CopyProbe& a, const std::vector<uint8_t>& da, const CopyProbe& b,
                 const std::vector<uint8_t>& db) {
  if (a.hdr.filesize != b.hdr.filesize) return false;
  const size_t n = std::min({static_cast<size_t>(std::max(a.hdr.filesize, 0)), da.size(), db.size()});
  return memcmp(da.data(), db.data(), n) == 0;
}

std::string List(const std::vector<int>& copies) {
  std::string out;
  for (size_t i = 0; i < copies.size(); ++i) {
    out += (i == 0 ? "" : (i + 1 == copies.size() ? " and " : ", ")) + std::to_string(copies[i]);
  }
  return out;
}

// The ranges of differing data bytes (at most four shown) and a hex view of
// 16 bytes around the first one on each side, for an engineer to judge.
std::vector<std::string> HexView(int a, const std::vector<uint8_t>& da, int b, const std::vector<uint8_t>& db,
                                 int64_t n) {
  std::vector<std::pair<int64_t, int64_t>> ranges;
  for (int64_t i = 0; i < n; ++i) {
    if (da[static_cast<size_t>(i)] == db[static_cast<size_t>(i)]) continue;
    if (!ranges.empty() && ranges.back().second == i - 1) {
      ranges.back().second = i;
    } else {
      ranges.push_back({i, i});
    }
  }
  if (ranges.empty()) return {};
  std::string where = "differing data at offset";
  where += ranges.size() > 1 ? "s " : " ";
  for (size_t i = 0; i < ranges.size() && i < 4; ++i) {
    where += (i ? ", " : "") + std::to_string(ranges[i].first);
    if (ranges[i].second > ranges[i].first) where += "-" + std::to_string(ranges[i].second);
  }
  if (ranges.size() > 4) where += " and " + std::to_string(ranges.size() - 4) + " more";
  std::vector<std::string> out{where};
  const int64_t from = ranges.front().first & ~static_cast<int64_t>(15);
  const int64_t to = std::min<int64_t>(from + 16, n);
  for (const auto& [copy, d] : {std::pair<int, const std::vector<uint8_t>*>{a, &da}, {b, &db}}) {
    char buf[32];
    snprintf(buf, sizeof buf, "@%-6lld", static_cast<long long>(from));
    std::string line = std::string(buf) + " copy " + std::to_string(copy) + ": ";
    std::string text;
    for (int64_t i = from; i < to; ++i) {
      const uint8_t c = (*d)[static_cast<size_t>(i)];
      snprintf(buf, sizeof buf, "%02x ", c);
      line += buf;
      text += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
    }
    out.push_back(line + std::string(static_cast<size_t>(3 * (16 - (to - from))), ' ') + "|" + text + "|");
  }
  return out;
}

// Which copy is right, and why; -1 when nothing justifies a choice.  Only
// evidence the library itself writes counts: the blockade words, the close
// time, and, for an area whose writer died, the write-intent record and the
// size (raised only after the data landed).  Beyond that, a strict majority of
// three or more copies.  Two copies closed cleanly at the same time that
// differ are damaged, and the damage may be on either side.
int Decide(const AreaProbe& p, const std::vector<int>& usable, const std::vector<std::vector<uint8_t>>& data,
           int reference, std::string* why) {
  auto hdr = [&](int j) -> const SBACC_HDD_HEADER& { return p.copies[static_cast<size_t>(j)].hdr; };
  auto content = [&](int a, int b) {
    return SameContent(p.copies[static_cast<size_t>(a)], data[static_cast<size_t>(a)],
                       p.copies[static_cast<size_t>(b)], data[static_cast<size_t>(b)]);
  };
  bool same_content = true, same_blockade = true;
  int64_t latest_close = INT64_MIN;
  for (int j : usable) {
    same_content = same_content && content(usable.front(), j);
    same_blockade = same_blockade && hdr(j).hddblockade == hdr(usable.front()).hddblockade;
    latest_close = std::max(latest_close, hdr(j).closetime);
  }
  if (same_content) {
    *why = "the data agree, only header bookkeeping differs; copy " + std::to_string(reference) +
           " is the one an open reads";
    return reference;
  }
  if (!same_blockade) {
    char buf[96];
    snprintf(buf, sizeof buf, "its header's blockade word 0x%x fences off more copies than the others record",
             hdr(reference).hddblockade);
    *why = buf;
    return reference;
  }
  std::vector<int> last;
  for (int j : usable) {
    if (hdr(j).closetime == latest_close) last.push_back(j);
  }
  if (last.size() == 1) {
    *why = "it was closed last (" + LocalTime(latest_close) + ")";
    return last.front();
  }
  bool open = false;
  for (int j : usable) open = open || hdr(j).openflag != 0;
  if (open) {
    std::vector<int> done, pending;
    for (int j : usable) (hdr(j).writeflag != 0 ? pending : done).push_back(j);
    if (!pending.empty() && !done.empty()) {
      bool agree = true;
      for (int j : done) agree = agree && content(done.front(), j);
      if (agree) {
        const SBACC_HDD_HEADER& h = hdr(pending.front());
        *why = "its write finished; copy " + List(pending) + " still records a write of " +
               std::to_string(h.write_size) + " bytes at " + std::to_string(h.write_offset) +
               " in progress when its writer stopped";
        return done.front();
      }
    }
    int largest = usable.front();
    bool unique = true;
    for (int j : usable) {
      if (j == largest) continue;
      if (hdr(j).filesize > hdr(largest).filesize) {
        largest = j;
        unique = true;
      } else if (hdr(j).filesize == hdr(largest).filesize) {
        unique = false;
      }
    }
    bool prefix = unique;
    for (int j : usable) {
      const size_t n = static_cast<size_t>(std::max(hdr(j).filesize, 0));
      prefix = prefix && n <= data[static_cast<size_t>(j)].size() &&
               memcmp(data[static_cast<size_t>(j)].data(), data[static_cast<size_t>(largest)].data(), n) == 0;
    }
    if (prefix) {
      *why = "its writer stopped with the area open, and it holds the larger size (" +
             std::to_string(hdr(largest).filesize) + " bytes): the size is raised only after the data is written";
      return largest;
    }
  }
  if (usable.size() >= 3) {
    for (int j : usable) {
      std::vector<int> same;
      for (int k : usable) {
        if (content(j, k)) same.push_back(k);
      }
      if (2 * same.size() > usable.size()) {
        *why = "copies " + List(same) + " hold the same data, a majority of " + std::to_string(usable.size());
        return j;
      }
    }
  }
  return -1;
}

struct AreaOptions {
  bool repair = false;
  bool force = false;
  bool quiet = false;  // a first look that only counts
  bool json = false;   // lines go into the JSON only
  int from = -1;
};

// One pass over one area: checks, comparison, and with --repair the rewrite.
class AreaVerifier {
 public:
  AreaVerifier(AreaProbe& p, const AreaOptions& o, Tally& t, Progress& progress, nlohmann::json* js)
      : p_(p), o_(o), t_(t), progress_(progress), js_(js), name_(p.entry().filename) {}
  ScrubOutcome Run();

 private:
  void Report(const std::string& line) {
    if (o_.quiet) return;
    (*js_)["report"].push_back(line);
    if (o_.json) return;
    progress_.Clear();
    printf("%s: %s\n", name_, line.c_str());
    fflush(stdout);
  }
  ScrubOutcome Failed(const std::string& what, int rc) {
    if (!o_.quiet) {
      progress_.Clear();
      fprintf(stderr, "sbacc: verify %s: %s: %s\n", name_, what.c_str(), CodeString(rc).c_str());
    }
    return ScrubOutcome::kError;
  }
  bool Usable(ScrubOutcome* early);
  bool ReadAll(ScrubOutcome* early);
  bool Same(int a, int b) {
    return SameContent(Copy(a), data_[static_cast<size_t>(a)], Copy(b), data_[static_cast<size_t>(b)]);
  }
  bool RecordsApply();
  int DecideByRecords(std::string* why);
  void ShowDifference(int j, const Difference& d);
  ScrubOutcome Repair();
  CopyProbe& Copy(int j) { return p_.copies[static_cast<size_t>(j)]; }

  AreaProbe& p_;
  const AreaOptions& o_;
  Tally& t_;
  Progress& progress_;
  nlohmann::json* js_;
  const char* name_;
  std::vector<int> usable_, differing_, failing_;
  int64_t longest_ = 0;
  std::vector<std::vector<uint8_t>> data_;
  std::vector<int> read_rc_;
  int reference_ = -1;
};

// The copies to compare; false with *early set when there is nothing to.
bool AreaVerifier::Usable(ScrubOutcome* early) {
  if (p_.nv_rc != 0) {
    *early = Failed("NV entry", p_.nv_rc);
    return false;
  }
  std::vector<FileUser> users;
  if (BeingWritten(p_, &users)) {
    if (!o_.force) {
      Report("being written (" + DescribeUsers(users) + " holds its files open): skipped; --force to verify anyway");
      ++t_.skipped;
      *early = ScrubOutcome::kSkipped;
      return false;
    }
    Report("being written (" + DescribeUsers(users) + "), going on because of --force");
  }
  for (const CopyProbe& c : p_.copies) {
    if (c.usable()) usable_.push_back(c.index);
  }
  if (usable_.empty()) {
    Report("no usable copy to verify");
    *early = ScrubOutcome::kNoCopy;
    return false;
  }
  if (usable_.size() == 1) {
    Report("only copy " + std::to_string(usable_.front()) + " is usable, nothing to compare");
    *early = ScrubOutcome::kNotCompared;
    return false;
  }
  if (o_.from >= 0 && std::find(usable_.begin(), usable_.end(), o_.from) == usable_.end()) {
    throw UsageError("--from " + std::to_string(o_.from) + ": copy " + std::to_string(o_.from) + " of " + name_ +
                     " is not usable (see 'sbacc status " + name_ + "')");
  }
  return true;
}

// Every copy's data up to the longest size any of them claims (never past
// the capacity); a copy whose data cannot be read is a difference too.
bool AreaVerifier::ReadAll(ScrubOutcome* early) {
  for (int j : usable_) longest_ = std::max<int64_t>(longest_, Copy(j).hdr.filesize);
  longest_ = std::min(longest_, Capacity(p_.entry()));
  data_.assign(p_.copies.size(), {});
  read_rc_.assign(p_.copies.size(), 0);
  for (int j : usable_) read_rc_[static_cast<size_t>(j)] = ReadData(p_.sfd(), j, longest_, &data_[static_cast<size_t>(j)]);
  reference_ = LatestCopy(p_, usable_, nullptr);
  p_.CheckIntegrity();
  if (read_rc_[static_cast<size_t>(reference_)] != 0) {
    *early = Failed("reading copy " + std::to_string(reference_), read_rc_[static_cast<size_t>(reference_)]);
    return false;
  }
  return true;
}

void AreaVerifier::ShowDifference(int j, const Difference& d) {
  const CopyProbe& ref = Copy(reference_);
  Report("copy " + std::to_string(j) + " differs from copy " + std::to_string(reference_) + ": " + Describe(d));
  (*js_)["differences"].push_back({{"copy", j},
                                   {"against", reference_},
                                   {"header_fields", d.fields},
                                   {"data_bytes", d.count},
                                   {"first_offset", d.first < 0 ? nlohmann::json(nullptr) : nlohmann::json(d.first)}});
  if (o_.quiet || d.count == 0 || read_rc_[static_cast<size_t>(j)] != 0) return;
  const int64_t n = std::min<int64_t>(std::max(ref.hdr.filesize, Copy(j).hdr.filesize), longest_);
  for (const std::string& line :
       HexView(reference_, data_[static_cast<size_t>(reference_)], j, data_[static_cast<size_t>(j)], n)) {
    (*js_)["report"].push_back("  " + line);
    if (o_.json) continue;
    progress_.Clear();
    printf("  %s\n", line.c_str());
  }
}

ScrubOutcome AreaVerifier::Run() {
  ScrubOutcome early = ScrubOutcome::kOk;
  if (!Usable(&early) || !ReadAll(&early)) return early;
  const CopyProbe& ref = Copy(reference_);
  for (int j : usable_) {
    if (Copy(j).integrity != Integrity::kBad) continue;
    failing_.push_back(j);
    (*js_)["failing"].push_back(j);
    Report("copy " + std::to_string(j) + " fails its integrity record: its data are not what its last write left");
  }
  for (int j : usable_) {
    if (j == reference_) continue;
    ++t_.compared;
    const Difference d = Compare(p_, ref, data_[static_cast<size_t>(reference_)], Copy(j));
    if (!d.any()) continue;
    differing_.push_back(j);
    ++t_.mismatches;
    ShowDifference(j, d);
  }
  // Copies left out (not usable) leave the scrub of the area partial.
  const ScrubOutcome agreed = usable_.size() < p_.copies.size() ? ScrubOutcome::kPartial : ScrubOutcome::kOk;
  if (differing_.empty() && failing_.empty()) return agreed;
  if (!o_.repair || o_.quiet) return ScrubOutcome::kMismatch;
  const ScrubOutcome r = Repair();
  return r == ScrubOutcome::kRepaired && agreed == ScrubOutcome::kPartial ? agreed : r;
}

// The records decide once any copy carries one that applies (SBACC_CHECKSUM=0
// leaves every copy unchecked, and the headers decide).
bool AreaVerifier::RecordsApply() {
  return std::any_of(usable_.begin(), usable_.end(), [&](int j) {
    return Copy(j).integrity == Integrity::kVerified || Copy(j).integrity == Integrity::kBad;
  });
}

// A copy that passes its record holds what its last write left; one that
// fails does not.  The copies that pass are right when they hold the same
// data, whatever the headers say; the others are rewritten from them (a
// writer that keeps no record unbinds it on every copy it opens, so a copy
// without one beside a copy that passes is no newer write).  Copies that all
// pass yet differ, or none that passes, leave nothing to go by.
int AreaVerifier::DecideByRecords(std::string* why) {
  std::vector<int> ok, bad;
  for (int j : usable_) {
    if (Copy(j).integrity == Integrity::kVerified) ok.push_back(j);
    if (Copy(j).integrity == Integrity::kBad) bad.push_back(j);
  }
  if (ok.empty()) {
    *why = bad.size() == usable_.size() ? std::string("every copy fails its integrity record")
                                        : "no copy passes its integrity record, and copy " + List(bad) + " fails it";
    return -1;
  }
  for (int j : ok) {
    if (Same(ok.front(), j)) continue;
    *why = "copies " + List(ok) + " all pass their integrity records, yet hold different data";
    return -1;
  }
  const int winner =
      std::find(ok.begin(), ok.end(), reference_) != ok.end() ? reference_ : LatestCopy(p_, ok, nullptr);
  if (std::all_of(usable_.begin(), usable_.end(), [&](int j) { return Same(winner, j); })) {
    *why = "the data agree, only header bookkeeping differs; copy " + std::to_string(winner) +
           " passes its integrity record";
    return winner;
  }
  *why = ok.size() == 1 ? std::string("its data pass its integrity record")
                        : "copies " + List(ok) + " pass their integrity records and hold the same data";
  *why += bad.empty() ? std::string(", the others have no record that applies")
                      : "; copy " + List(bad) + (bad.size() == 1 ? " fails its own" : " fail theirs");
  return winner;
}

ScrubOutcome AreaVerifier::Repair() {
  std::string why = "the headers agree and no majority holds the same data";
  int winner = o_.from;
  if (winner >= 0) {
    why = "chosen with --from";
  } else {
    bool unreadable = false;
    for (int j : usable_) unreadable = unreadable || read_rc_[static_cast<size_t>(j)] != 0;
    winner = unreadable       ? -1
             : RecordsApply() ? DecideByRecords(&why)
                              : Decide(p_, usable_, data_, reference_, &why);
  }
  if (winner < 0) {
    Report("not repaired: nothing shows which copy is right (" + why +
           "); look at the bytes above and rewrite with 'sbacc verify --repair --from COPY " + std::string(name_) +
           "'");
    return ScrubOutcome::kMismatch;
  }
  Report("copy " + std::to_string(winner) + " is taken as right: " + why);
  (*js_)["winner"] = winner;
  (*js_)["reason"] = why;
  const CopyProbe& src = Copy(winner);
  std::vector<uint8_t> src_data;
  int rc = ReadData(p_.sfd(), winner, std::min<int64_t>(std::max(src.hdr.filesize, 0), Capacity(p_.entry())), &src_data);
  if (rc != 0) return Failed("reading copy " + std::to_string(winner), rc);
  ScrubOutcome outcome = ScrubOutcome::kRepaired;
  for (int j : usable_) {
    CopyProbe& c = Copy(j);
    if (j == winner || !Compare(p_, src, src_data, c).any()) continue;
    // Not even --from puts data that prove nothing over data that pass their record.
    if (c.integrity == Integrity::kVerified && src.integrity != Integrity::kVerified) {
      Report("copy " + std::to_string(j) + " passes its integrity record and copy " + std::to_string(winner) +
             " does not: left as it is");
      if (outcome != ScrubOutcome::kError) outcome = ScrubOutcome::kMismatch;
      continue;
    }
    rc = Rewrite(p_, src, src_data, j);
    if (rc != 0) {
      Report("copy " + std::to_string(j) + " could not be rewritten: " + CodeString(rc));
      outcome = ScrubOutcome::kError;
      continue;
    }
    // Read back what landed before calling it repaired.
    rc = sbacc_l_hddget(p_.sfd(), j, 0, c.raw, SBACC_HEADER_SIZE);
    if (rc == 0) sbacc_l_decode_header(c.raw, &c.hdr);
    if (rc != 0 || Compare(p_, src, src_data, c).any()) {
      Report("copy " + std::to_string(j) + " still differs after the rewrite");
      if (outcome != ScrubOutcome::kError) outcome = ScrubOutcome::kMismatch;
    } else {
      Report("copy " + std::to_string(j) + " rewritten from copy " + std::to_string(winner));
      (*js_)["rewritten"].push_back(j);
    }
  }
  t_.repaired += outcome == ScrubOutcome::kRepaired;
  return outcome;
}

// Verifies one area: a first look that only counts; whatever it finds is
// read again (under the lock for a repair) before anything is called a
// mismatch.
ScrubOutcome VerifyOne(const SBACC_FILE_LIST_ENTRY& e, const AreaOptions& o, Tally& t, Progress& progress,
                       nlohmann::json* js) {
  AreaProbe probe(e, o.repair ? O_RDWR : O_RDONLY);
  Tally first;
  AreaOptions look = o;
  look.quiet = true;
  nlohmann::json scratch;
  const ScrubOutcome seen = AreaVerifier(probe, look, first, progress, &scratch).Run();
  if (seen != ScrubOutcome::kMismatch || !o.repair) {
    if (seen == ScrubOutcome::kMismatch) probe.Refresh();
    return AreaVerifier(probe, o, t, progress, js).Run();
  }
  // Compare and rewrite under the lock, so no other controller rebuilds the
  // same copies meanwhile.
  int rc = sbacc_ma_enter_repairlock(probe.sfd());
  if (rc != 0) throw LibError(std::string(e.filename) + ": repair lock", rc);
  probe.Refresh();
  ScrubOutcome outcome;
  try {
    outcome = AreaVerifier(probe, o, t, progress, js).Run();
  } catch (...) {
    sbacc_ma_leave_repairlock(probe.sfd());
    throw;
  }
  rc = sbacc_ma_leave_repairlock(probe.sfd());
  if (rc != 0) throw LibError(std::string(e.filename) + ": releasing the repair lock", rc);
  return outcome;
}

}  // namespace

int CmdVerify(const VerifyOptions& vo) {
  const auto selected = SelectAreas(vo.areas);
  CheckNvImage("verify");
  if (vo.from >= 0 && (!vo.repair || vo.areas.size() != 1)) {
    throw UsageError("--from goes with --repair and one AREA: it overrides the choice of copy for that area only");
  }
  // The repair lock is per controller; this is the byte it raises.
  const int controller = ControllerNumber(vo.controller, vo.repair);
  if (controller >= 0) sbacc_cntno = controller;
  Tally t;
  Progress progress("verify", selected.size());
  nlohmann::json out = {{"version", kJsonVersion}, {"areas", nlohmann::json::array()}};
  AreaOptions o;
  o.repair = vo.repair;
  o.force = vo.force;
  o.from = vo.from;
  o.json = vo.json;
  std::vector<std::pair<std::string, ScrubOutcome>> outcomes;
  for (const SBACC_FILE_LIST_ENTRY* e : selected) {
    progress.Step(e->filename);
    ++t.areas;
    nlohmann::json js = {{"name", e->filename}, {"report", nlohmann::json::array()},
                         {"differences", nlohmann::json::array()}, {"failing", nlohmann::json::array()},
                         {"winner", nullptr}, {"reason", nullptr},
                         {"rewritten", nlohmann::json::array()}};
    ScrubOutcome outcome = ScrubOutcome::kError;
    try {
      outcome = VerifyOne(*e, o, t, progress, &js);
    } catch (const LibError& err) {
      progress.Clear();
      fprintf(stderr, "sbacc: verify %s\n", err.what());
    }
    js["result"] = OutcomeName(outcome);
    js["status"] = OutcomeStatus(outcome);
    t.status = Graver(t.status, OutcomeStatus(outcome));
    outcomes.push_back({e->filename, outcome});
    out["areas"].push_back(js);
  }
  progress.Clear();
  char line[256];
  snprintf(line, sizeof line, "verify: %d area%s, %d cop%s compared, %d mismatch%s", t.areas,
           t.areas == 1 ? "" : "s", t.compared, t.compared == 1 ? "y" : "ies", t.mismatches,
           t.mismatches == 1 ? "" : "es");
  std::string summary = line;
  if (vo.repair) summary += ", " + std::to_string(t.repaired) + " repaired";
  if (t.skipped > 0) summary += ", " + std::to_string(t.skipped) + " skipped (in use)";
  summary += std::string(": ") + ExitName(t.status);
  KeepScrubRecord(outcomes, controller);
  if (vo.json) {
    out["summary"] = summary;
    PutStatus(out, t.status);
    printf("%s\n", out.dump(2).c_str());
  } else {
    printf("%s\n", summary.c_str());
  }
  return t.status;
}

}  // namespace sbacc_tool
