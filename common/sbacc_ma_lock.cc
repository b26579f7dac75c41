// Repair lock between controllers: one NV byte per controller number in each
// area's entry, plus the one-bit NV blockade test of the repair copy.
//
// Beyond the base design (README, "Beyond the base design").  The bytes keep
// their meaning: byte n is 1 while controller n holds the lock or asks for
// it.  What changes is what a controller does when it meets another byte:
//
//  - Exclusion.  A controller raises its own byte and only then reads all
//    four; it holds the lock when that read shows its own byte up and every
//    other byte down.  Of two controllers that both hold, each read would
//    have had to come before the other's raise, which cannot be.  This holds
//    as long as nobody clears another controller's byte; the one exception,
//    the master clearing a stale byte, is made safe by the heartbeat and the
//    lost-lock check below.
//  - Progress, for any number of contenders.  Every controller ranks the
//    raised bytes by the same rule: the master first, then the lowest
//    number.  A contender that ranks first among the bytes it sees raised
//    keeps its own up and looks again after a pause; every other contender
//    lowers its own byte and backs off for a random pause (the pauses double
//    from 2 ms to 200 ms).  So the first-ranked contender gets the lock as
//    soon as the holder, if any, has left, and contenders never all back off
//    together round after round.  The base design instead let only the
//    master decide, and only between controllers 0 and 1 (-100 for 2 and 3).
//  - A bound.  A contender gives up (-106, own byte down) once its pauses add
//    up to SBACC_REPAIRLOCK_WAIT seconds (default 600: long enough for the
//    other controllers' start-ups on a system with many areas, which a
//    start-up may have to wait for one after the other).  The time is counted
//    in the Env's sleeps, so tests record the back-offs instead of sleeping.
//  - A live holder is not taken over.  A raised byte alone cannot tell a
//    controller that stopped while holding (whose byte stays up for ever)
//    from one that is repairing: the base design's master cleared either at
//    once, and a master meeting a live holder then repaired the same copies
//    at the same time.  So a controller whose byte is up advances a heartbeat
//    of its own in the area's NV record: a holder before every durable step
//    (sbacc_ma_repairlock_check), a contender that keeps its byte up at every
//    look, and a process, whenever it checks or waits, for every lock it
//    holds (at most once a second each), so that a lock held over a stretch
//    without steps of its own, such as the start-up's hold of the paired
//    areas, still shows as live.  The master clears another controller's
//    byte only after watching it stay up with its heartbeat standing still
//    for SBACC_REPAIRLOCK_STALE seconds (default 60, longer than any single
//    step of a repair should take; it must stay below the wait, or the master
//    gives up first).  The heartbeats are counters, not times: controllers'
//    clocks need not agree, a counter only has to move.  Only the master
//    clears, as in the base design: a stale byte of a controller is otherwise
//    cleared by that controller's own next start-up (its own byte does not
//    stand in its way) or its sbacc_repair_init.
//  - A holder that lost its lock stops.  A holder looks at its own byte
//    before every durable step and, finding it cleared (by a master that took
//    it for stale, or by a base-design master), stops without writing
//    anything more, leaving the rest to the next start-up.  What remains is
//    the window between that look and the step: a holder that stands still
//    for longer than SBACC_REPAIRLOCK_STALE between the two can still make
//    one step beside the master.
//  - Nesting.  A start-up holds the seven paired areas' locks from before
//    their HDD repair to the end of their data repair (sbacc_restore.cc);
//    taking a lock that this process already holds only counts, and only the
//    last release lowers the byte.
//
// The heartbeat: the last 8 of the base design's 68 reserved bytes of the NV
// record, a 16-bit little-endian counter per controller (SBACC_MEM_LIST_ENTRY
// ::lockbeat, encoded with the rest of the record in sbacc_l_record.cc).  All
// zeros means nothing recorded: a counter skips 0 when it wraps, and a
// controller writes 0 back when it releases the lock (or gives up waiting
// with its byte up), so a record reads 0 unless a hold or a wait of that
// controller is under way or was cut off.  A base-design controller never
// writes it.  The end of the range was taken so that the bytes 60..119 stay
// free for other uses.
#define SBACC_MODULE SBACC_MODULE_MA
#include "sbacc_trace.h"

#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "sanfwctl.h"
#include "sbacc_core.h"
#include "sbacc_env.h"
#include "sbacc_l.h"
#include "sbacc_ma.h"

using sbacc::kTraceError;
using sbacc::kTraceFlow;
using sbacc::kTraceMilestone;
using sbacc::kTraceState;

namespace {

constexpr int kLockBytes = 4;
constexpr int kNoMaster = -1;
constexpr unsigned kFirstStepMicros = 2000;
constexpr unsigned kLastStepMicros = 200000;
constexpr int64_t kMicrosPerSecond = 1000000;

// The lock array has four bytes.  A controller number outside them is
// refused before anything is written, so no NV byte of a neighbouring field
// (or of the next area's entry) can ever be touched through a bad number.
bool CntnoInRange() { return sbacc_cntno >= 0 && sbacc_cntno < kLockBytes; }

// 0 is "nothing recorded": a counter never writes it.
uint16_t NextBeat(uint16_t b) { return b == 0xffff ? 1 : static_cast<uint16_t>(b + 1); }

// ---- The locks this process holds ----------------------------------------------

struct Held {
  int index;       // the area's NV record
  int count;       // takes not yet released
  bool lost;       // its byte was found cleared: every later check fails
  uint16_t beat;   // the heartbeat last written
  time_t beat_at;  // when (Env clock); a keep-alive beats once a second at most
  int nv_retries;  // SBACC_MEMSET_MAXRETRY of the descriptor that took it
};
// A start-up holds one lock per running area task (64 at most) and the
// paired areas' seven.
constexpr int kHeldMax = 256;
pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
Held g_held[kHeldMax];
int g_nheld = 0;
uint16_t g_beat = 0;

class Guard {
 public:
  Guard() { pthread_mutex_lock(&g_mu); }
  ~Guard() { pthread_mutex_unlock(&g_mu); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
};

Held* Find(int index) {  // g_mu held
  for (int i = 0; i < g_nheld; ++i) {
    if (g_held[i].index == index) return &g_held[i];
  }
  return nullptr;
}

// A child holds none of its parent's locks (the parent does), and must not
// inherit the mutex held by a thread that the fork left behind.
void AtforkPrepare() { pthread_mutex_lock(&g_mu); }
void AtforkParent() { pthread_mutex_unlock(&g_mu); }
void AtforkChild() {
  g_nheld = 0;
  pthread_mutex_unlock(&g_mu);
}
struct AtforkRegistrar {
  AtforkRegistrar() { pthread_atfork(AtforkPrepare, AtforkParent, AtforkChild); }
} g_atfork_registrar;

}  // namespace

void sbacc_ma_repairlock_state_for_test(bool hold) {
  if (hold) {
    pthread_mutex_lock(&g_mu);
  } else {
    pthread_mutex_unlock(&g_mu);
  }
}

namespace {

// Writes controller `own`'s heartbeat of area `index` through a descriptor
// that carries only what an NV transfer uses.  A failed write only misses
// one beat; it is traced by the accessor.
void WriteBeat(int index, int nv_retries, int own, uint16_t beat) {
  SBACC_FILE_DISCRIPTER d;
  memset(&d, 0, sizeof d);
  d.sfe.index = index;
  d.env[SBACC_ENV_MEMSET] = nv_retries;
  (void)sbacc_memset_lockbeat(&d, own, beat);
}

// Advances the heartbeat of every lock this process holds that has had none
// this second.
void KeepAlive() {
  const time_t now = sbacc::CurrentEnv()->Now();
  struct Due {
    int index, nv_retries;
    uint16_t beat;
  } due[kHeldMax];
  int n = 0;
  {
    Guard g;
    for (int i = 0; i < g_nheld; ++i) {
      Held& h = g_held[i];
      if (h.lost || h.beat_at == now) continue;
      h.beat = NextBeat(h.beat);
      h.beat_at = now;
      due[n++] = {h.index, h.nv_retries, h.beat};
    }
  }
  for (int i = 0; i < n; ++i) WriteBeat(due[i].index, due[i].nv_retries, sbacc_cntno, due[i].beat);
}

// ---- Taking the lock -----------------------------------------------------------------

// A random pause in [step/2, step]: contenders that collided once do not
// collide again in step.  Seeded per process and thread.
unsigned Pause(unsigned step) {
  thread_local uint64_t s = 0;
  thread_local pid_t seeded = 0;
  if (seeded != getpid()) {
    seeded = getpid();
    s = (static_cast<uint64_t>(seeded) << 32) ^ reinterpret_cast<uintptr_t>(&s) ^
        static_cast<uint64_t>(sbacc_cntno) * 0x9e3779b97f4a7c15ull;
    if (s == 0) s = 1;
  }
  s ^= s << 13;
  s ^= s >> 7;
  s ^= s << 17;
  const unsigned half = step / 2;
  return half + static_cast<unsigned>(s % (step - half + 1));
}

// The master's number from the status call, or kNoMaster when the call fails
// or names no controller that has a lock byte.
int Master() {
  sanfw_getstatus_out_t status;
  memset(&status, 0, sizeof status);
  const int st = sbacc::CurrentEnv()->ControllerStatus(&status);
  if (st != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] Ezosanfwctl_get_status error. ret=%d", st);
    return kNoMaster;
  }
  return status.master_cont < kLockBytes ? status.master_cont : kNoMaster;
}

// The rule every controller applies alike: the master first, then the lowest
// number.
int Rank(int n, int master) { return n == master ? -1 : n; }

// What the master knows of another controller's raised byte: its heartbeat
// when last seen, and for how long (the master's pauses) it has not moved.
struct Watch {
  bool on;
  uint16_t beat;
  int64_t still;
};

// The master's look at the raised bytes of other controllers: it clears
// each one whose heartbeat it has watched stand still for `stale`
// (*cleared then set).  0, or the code of a failed NV access.
int ClearStale(SBACC_FILE_DISCRIPTER* sfd, unsigned raised, int64_t stale, Watch* watch, bool* cleared) {
  uint16_t beats[kLockBytes] = {0, 0, 0, 0};
  if (sbacc_memget_lockbeat_all(sfd, beats) != 0) return 0;  // no judgement this time
  for (int n = 0; n < kLockBytes; ++n) {
    Watch& w = watch[n];
    if ((raised >> n & 1u) == 0) {
      w.on = false;
    } else if (!w.on || w.beat != beats[n]) {
      w = {true, beats[n], 0};
    } else if (w.still >= stale) {
      SBACC_TRACE(kTraceMilestone,
                  "[sbacc_ma_enter_repairlock] %s: controller %d's lock byte is stale (heartbeat %u still for %lld ms): "
                  "cleared by the master",
                  sfd->sfe.filename, n, static_cast<unsigned>(w.beat), static_cast<long long>(w.still / 1000));
      const int rc = sbacc_memset_hddrepairlock(sfd, n, 0);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
        return rc;
      }
      w.on = false;
      *cleared = true;
    }
  }
  return 0;
}

int TakeLock(SBACC_FILE_DISCRIPTER* sfd, int own) {
  const char* name = sfd->sfe.filename;
  const int64_t wait = static_cast<int64_t>(sfd->env[SBACC_ENV_REPAIRLOCK_WAIT]) * kMicrosPerSecond;
  const int64_t stale = static_cast<int64_t>(sfd->env[SBACC_ENV_REPAIRLOCK_STALE]) * kMicrosPerSecond;

  int rc = sbacc_memset_hddrepairlock(sfd, own, 1);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
    return rc;
  }

  bool asked = false;  // the master's number, once another byte was met
  int master = kNoMaster;
  int64_t waited = 0;
  unsigned step = kFirstStepMicros;
  uint16_t beat = NextBeat(static_cast<uint16_t>(getpid()));
  bool beaten = false;
  Watch watch[kLockBytes] = {};
  unsigned seen = 0;  // the raised bytes last traced
  for (;;) {
    uint8_t lockall[kLockBytes] = {0, 0, 0, 0};
    rc = sbacc_memget_hddrepairlock_all(sfd, lockall);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memget_hddrepairlock_all error. retcode=%d", rc);
      (void)sbacc_memset_hddrepairlock(sfd, own, 0);
      return rc;
    }
    // Our own byte can be found down: cleared by a master while we asked.
    // Then the lock is not ours whatever the others show.
    const bool mine = lockall[own] != 0;
    unsigned raised = 0;
    for (int n = 0; n < kLockBytes; ++n) {
      if (n != own && lockall[n] != 0) raised |= 1u << n;
    }
    if (mine && raised == 0) {
      if (asked) {
        SBACC_TRACE(kTraceMilestone, "[sbacc_ma_enter_repairlock] %s: controller %d holds the lock after %lld ms", name,
                    own, static_cast<long long>(waited / 1000));
      }
      return 0;
    }
    if (!asked) {
      asked = true;
      master = Master();
    }
    if (raised != seen) {
      seen = raised;
      SBACC_TRACE(kTraceState, "[sbacc_ma_enter_repairlock] %s: controller %d meets lockall=%d%d%d%d master=%d", name,
                  own, lockall[0], lockall[1], lockall[2], lockall[3], master);
    }

    // Only the master judges other bytes, and only by their heartbeats.
    if (own == master) {
      bool cleared = false;
      rc = ClearStale(sfd, raised, stale, watch, &cleared);
      if (rc != 0) {
        (void)sbacc_memset_hddrepairlock(sfd, own, 0);
        return rc;
      }
      if (cleared) continue;  // look again at once
    }

    if (waited >= wait) {
      (void)sbacc_memset_hddrepairlock(sfd, own, 0);
      if (beaten) (void)sbacc_memset_lockbeat(sfd, own, 0);
      SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] lock error.");
      return SBACC_E_REPAIR;
    }

    bool first = mine;
    for (int n = 0; n < kLockBytes; ++n) {
      if ((raised >> n & 1u) != 0 && Rank(n, master) < Rank(own, master)) first = false;
    }
    if (first) {
      beaten = true;
      beat = NextBeat(beat);
      (void)sbacc_memset_lockbeat(sfd, own, beat);  // alive while it waits with its byte up
    } else if (mine) {
      rc = sbacc_memset_hddrepairlock(sfd, own, 0);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
        return rc;
      }
    }
    KeepAlive();
    const unsigned pause = Pause(step);
    step = step < kLastStepMicros / 2 ? step * 2 : kLastStepMicros;
    sbacc::CurrentEnv()->SleepMicros(pause);
    waited += pause;
    for (Watch& w : watch) w.still += w.on ? pause : 0;
    if (!first) {
      rc = sbacc_memset_hddrepairlock(sfd, own, 1);
      if (rc != 0) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
        return rc;
      }
    }
  }
}

int EnterRepairlock(SBACC_FILE_DISCRIPTER* sfd) {
  const int own = sbacc_cntno;
  if (!CntnoInRange()) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] parameter error. sbacc_cntno=%d", own);
    return SBACC_E_PARAM;
  }
  const int index = sfd->sfe.index;
  {
    Guard g;
    if (Held* h = Find(index)) {
      if (h->lost) {
        SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] %s: the lock this controller held is lost",
                    sfd->sfe.filename);
        return SBACC_E_REPAIR;
      }
      ++h->count;
      SBACC_TRACE(kTraceFlow, "[sbacc_ma_enter_repairlock] %s: held by this controller already (%d)",
                  sfd->sfe.filename, h->count);
      return 0;
    }
  }
  const int rc = TakeLock(sfd, own);
  if (rc != 0) return rc;
  {
    Guard g;
    if (Held* h = Find(index)) {  // another thread of this controller took it meanwhile
      ++h->count;
      return 0;
    }
    if (g_nheld < kHeldMax) {
      g_beat = NextBeat(g_beat);
      g_held[g_nheld++] = {index, 1, false, g_beat, 0, sfd->env[SBACC_ENV_MEMSET]};
      return 0;
    }
  }
  SBACC_TRACE(kTraceError, "[sbacc_ma_enter_repairlock] %s: more than %d locks held", sfd->sfe.filename, kHeldMax);
  (void)sbacc_memset_hddrepairlock(sfd, own, 0);
  return SBACC_E_REPAIR;
}

}  // namespace

int sbacc_ma_enter_repairlock(SBACC_FILE_DISCRIPTER* sfd) {
  const int rc = EnterRepairlock(sfd);
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_enter_repairlock] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_leave_repairlock(SBACC_FILE_DISCRIPTER* sfd) {
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_leave_repairlock] [ENTER]");
  int rc = 0;
  bool held = false, nested = false;
  {
    Guard g;
    if (Held* h = Find(sfd->sfe.index)) {
      held = true;
      nested = --h->count > 0;
      if (!nested) *h = g_held[--g_nheld];
    }
  }
  if (nested) {
    SBACC_TRACE(kTraceFlow, "[sbacc_ma_leave_repairlock] still held by this controller");
  } else if (!CntnoInRange()) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_leave_repairlock] parameter error. sbacc_cntno=%d", sbacc_cntno);
    rc = SBACC_E_PARAM;
  } else {
    rc = sbacc_memset_hddrepairlock(sfd, sbacc_cntno, 0);
    if (rc != 0) {
      SBACC_TRACE(kTraceError, "[sbacc_ma_leave_repairlock] sbacc_memset_hddrepairlock error. retcode=%d", rc);
    }
    // Nothing recorded while nothing is held: a released area's record ends
    // as it would without the heartbeat.
    if (held) (void)sbacc_memset_lockbeat(sfd, sbacc_cntno, 0);
  }
  SBACC_TRACE(kTraceFlow, "[sbacc_ma_leave_repairlock] [LEAVE] %d", rc);
  return rc;
}

int sbacc_ma_repairlock_check(SBACC_FILE_DISCRIPTER* sfd) {
  const int index = sfd->sfe.index;
  {
    Guard g;
    const Held* h = Find(index);
    if (h == nullptr) return 0;  // not held here: nothing to lose
    if (h->lost) return SBACC_E_REPAIR;
  }
  const int own = sbacc_cntno;  // in range: the lock was taken with it
  uint8_t lockall[kLockBytes] = {0, 0, 0, 0};
  const int rc = sbacc_memget_hddrepairlock_all(sfd, lockall);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_repairlock_check] sbacc_memget_hddrepairlock_all error. retcode=%d", rc);
    return rc;
  }
  uint16_t beat = 0;
  {
    Guard g;
    Held* h = Find(index);
    if (h == nullptr) return 0;
    if (lockall[own] == 0) h->lost = true;
    if (!h->lost) {
      h->beat = NextBeat(h->beat);
      h->beat_at = sbacc::CurrentEnv()->Now();
      beat = h->beat;
    }
  }
  if (beat == 0) {
    SBACC_TRACE(kTraceError,
                "[sbacc_ma_repairlock_check] %s: repair lock lost (controller %d's byte cleared): stopped, the rest is "
                "left to the next start-up",
                sfd->sfe.filename, own);
    return SBACC_E_REPAIR;
  }
  (void)sbacc_memset_lockbeat(sfd, own, beat);
  KeepAlive();
  return 0;
}

void sbacc_ma_repairlock_forget() {
  Guard g;
  g_nheld = 0;
}

int sbacc_ma_mem_check_blockade(SBACC_FILE_DISCRIPTER* sfd, int hdd) {
  uint32_t mask = 0;
  const int rc = sbacc_memget_hddblockade(sfd, &mask);
  if (rc != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_mem_check_blockade] sbacc_memget_hddblockade error. retcode=%d", rc);
    return rc;
  }
  if (hdd >= 0 && hdd < 32 && (mask & (1u << hdd)) != 0) {
    SBACC_TRACE(kTraceError, "[sbacc_ma_mem_check_blockade] repair error.");
    return SBACC_E_NOCOPY;
  }
  return 0;
}
