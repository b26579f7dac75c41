// The one rule for which copy of an area holds its latest data, used by the
// open, the start-up restore and the tool alike.  Pure: it looks at headers
// the caller has read and decides; the caller acts.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceMilestone;
using sbacc::kTraceState;

namespace {

bool Has(uint32_t mask, int i) { return ((mask >> i) & 1u) != 0; }

// True when a's integrity record counts fewer writes than b's, even with
// the write a's record has in flight: a missed writes that b holds (its
// writes were lost without an error, though its close stamp may have
// landed).  Copies one write apart are the resync's to settle.
bool OlderGeneration(const SBACC_HDD_HEADER& a, const SBACC_HDD_HEADER& b) {
  SBACC_INTEGRITY ra, rb;
  const int sa = sbacc_l_integrity_applies(&a, &ra);
  if (sa == SBACC_INTEGRITY_NONE || sbacc_l_integrity_applies(&b, &rb) == SBACC_INTEGRITY_NONE) return false;
  return ra.generation + (sa == SBACC_INTEGRITY_PENDING ? 1u : 0u) < rb.generation;
}

// True when copy i's header shows later data than copy s's.
bool Newer(const SBACC_HDD_HEADER& s, int si, const SBACC_HDD_HEADER& h, int hi) {
  // A copy whose own header records it fenced off is one a start-up cut
  // short had marked stale and not yet rebuilt (only a copy under rebuild
  // receives a mask with its own bit): it never outranks one that does not.
  const bool s_stale = Has(s.hddblockade, si);
  const bool h_stale = Has(h.hddblockade, hi);
  if (s_stale != h_stale) return s_stale;
  // Same history: the later close.
  if (s.hddblockade == h.hddblockade) return h.closetime > s.closetime;
  // More fenced-off bits: that copy went on being written after the other
  // one had been fenced off, so it holds the newer data.  A tie goes to the
  // later close, then to the lower index.
  const int sbits = sbacc_l_bitcount(static_cast<int>(s.hddblockade));
  const int hbits = sbacc_l_bitcount(static_cast<int>(h.hddblockade));
  return hbits > sbits || (hbits == sbits && h.closetime > s.closetime);
}

void Note(const SBACC_COPY_VERDICT& v, SBACC_CLASSIFY_TRACE style, const char* name, int loser, int winner,
          bool moved) {
  if (style == SBACC_CLASSIFY_OPEN) {
    if (moved) SBACC_TRACE(kTraceState, "[sbacc_ma_detect_hdd] update candidate HDD :HDD[%d]", winner);
  } else if (style == SBACC_CLASSIFY_RESTORE) {
    if (moved) {
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d](latest->[%d]). %s repair[0x%x]", loser,
                  winner, name, v.stale);
    } else {
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d]. %s repair[0x%x]", loser, name,
                  v.stale);
    }
  }
}

// Headers alone speak only for the copies read.  A choice they cannot
// justify is not made: re-creating the area empty while an unseen copy may
// hold its data, or taking a copy NV fences off for current because the
// copy NV trusts could not be read now.
int Hold(const SBACC_COPY_VERDICT& v, const SBACC_COPY_EVIDENCE* ev) {
  if (ev == nullptr) return SBACC_HOLD_NONE;
  if (v.src < 0) return ev->existed != 0 && ev->unseen != 0 ? SBACC_HOLD_UNSEEN : SBACC_HOLD_NONE;
  // With every copy NV trusts read (and none valid), a fenced copy's valid
  // header is the best evidence there is.
  if (Has(ev->nvfenced, v.src) && (ev->unseen & ~ev->nvfenced) != 0) return SBACC_HOLD_FENCED_SOURCE;
  return SBACC_HOLD_NONE;
}

// Integrity records have the last word on data: a copy whose data fails
// its record is never a source, and is rebuilt from a copy that holds the
// same view of the area and proves its data.  When the latest copy fails and
// only older ones prove theirs, neither may overwrite the other: false, and
// the area is held.
bool Prove(const SBACC_HDD_HEADER* hdr, int count, uint32_t read, uint32_t bad, SBACC_CLASSIFY_TRACE style,
           const char* name, SBACC_COPY_VERDICT* v) {
  bad &= read & ~v->invalid;
  if (bad == 0) return true;
  if (Has(bad, v->src)) {
    int alt = -1;
    for (int i = 0; i < count && i < SBACC_HDD_MAX && alt < 0; ++i) {
      if (i != v->src && Has(read, i) && !Has(v->invalid | v->stale | bad, i) &&
          !Has(hdr[v->src].hddblockade, i)) {
        alt = i;
      }
    }
    if (alt < 0) {
      v->hold = SBACC_HOLD_UNVERIFIED;
      return false;
    }
    if (style == SBACC_CLASSIFY_RESTORE) {
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] HDD[%d] fails its integrity record: HDD[%d] is the source. %s",
                  v->src, alt, name);
    }
    v->src = alt;
  }
  v->stale |= bad;
  return true;
}

}  // namespace

void sbacc_ma_classify(const SBACC_HDD_HEADER* hdr, int count, uint32_t read, const SBACC_COPY_EVIDENCE* ev,
                       SBACC_CLASSIFY_TRACE style, const char* name, SBACC_COPY_VERDICT* v) {
  *v = SBACC_COPY_VERDICT{-1, 0, 0, SBACC_HOLD_NONE};
  for (int i = 0; i < count && i < SBACC_HDD_MAX; ++i) {
    if (!Has(read, i)) continue;
    if (!sbacc_l_header_valid(&hdr[i])) {
      v->invalid |= 1u << i;
      v->stale |= 1u << i;
      continue;
    }
    if (v->src < 0) {
      v->src = i;
      if (style == SBACC_CLASSIFY_RESTORE) {
        SBACC_TRACE(kTraceState, "[repair_for_restore]   -> latest HDD :HDD[%d] filename=%s", i, name);
      }
      continue;
    }
    const SBACC_HDD_HEADER& s = hdr[v->src];
    if (s.hddblockade == hdr[i].hddblockade && (OlderGeneration(s, hdr[i]) || OlderGeneration(hdr[i], s))) {
      const bool moved = OlderGeneration(s, hdr[i]);
      const int loser = moved ? v->src : i;
      v->stale |= 1u << loser;
      if (moved) v->src = i;
      Note(*v, style, name, loser, v->src, moved);
      continue;
    }
    if (s.hddblockade == hdr[i].hddblockade) {
      // The same view of the area: neither is stale by the other (one that
      // names itself fenced loses, and the source's word names it below).
      if (Newer(s, v->src, hdr[i], i)) {
        if (style == SBACC_CLASSIFY_RESTORE) {
          SBACC_TRACE(kTraceState, "[repair_for_restore]   -> latest HDD[%d]->[%d]  %s", v->src, i, name);
        }
        v->src = i;
      }
      continue;
    }
    if (Newer(s, v->src, hdr[i], i)) {
      const int loser = v->src;
      v->stale |= 1u << loser;
      v->src = i;
      Note(*v, style, name, loser, i, true);
    } else {
      v->stale |= 1u << i;
      Note(*v, style, name, i, v->src, false);
    }
  }
  v->hold = Hold(*v, ev);
  if (v->src < 0) return;
  if (ev != nullptr && !Prove(hdr, count, read, ev->bad, style, name, v)) return;
  // Copies the source itself records as fenced off missed writes, whatever
  // their own header says.
  for (int i = 0; i < count && i < SBACC_HDD_MAX; ++i) {
    if (i == v->src || !Has(read, i) || !Has(hdr[v->src].hddblockade, i) || Has(v->stale, i)) continue;
    v->stale |= 1u << i;
    if (style == SBACC_CLASSIFY_RESTORE) {
      SBACC_TRACE(kTraceMilestone, "[repair_for_restore] update candidate HDD[%d]. %s repair[0x%x]", i, name, v->stale);
    }
  }
  v->stale &= ~(1u << v->src);
  // A stale copy whose record counts more writes than the source's holds
  // data the source never saw: it is not overwritten, the area is left for
  // the engineer.
  for (int i = 0; i < count && i < SBACC_HDD_MAX && ev != nullptr && v->hold == SBACC_HOLD_NONE; ++i) {
    if (Has(v->stale & ~v->invalid, i) && OlderGeneration(hdr[v->src], hdr[i])) v->hold = SBACC_HOLD_NEWER_STALE;
  }
}
