// The area list parser on arbitrary file contents: the list and the lookup by
// name must agree on every accepted area, every string must be terminated
// inside its field, and nothing may leak or read out of bounds.
#include <stdlib.h>
#include <string.h>

#include "rig.h"
#include "sbacc_alloc.h"
#include "sbacc_l.h"

namespace {

using sbacc_fuzz::Check;

bool Terminated(const char* s, size_t cap) { return memchr(s, '\0', cap) != nullptr; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sbacc_fuzz::TheRig().sim.SetFilelistText(std::string(reinterpret_cast<const char*>(data), size));
  const long blocks = sbacc::AllocLiveBlocks();

  const int lines = sbacc_l_get_filelist_entry_num();
  SBACC_FILE_LIST* list = nullptr;
  const int rc = sbacc_l_get_filelist(&list);
  if (lines < 1) {
    Check(rc == lines && list == nullptr);
  } else {
    Check(rc == 0 && list != nullptr);
    Check(list->filenum >= 0 && list->filenum <= lines);
    for (int i = 0; i < list->filenum; ++i) {
      const SBACC_FILE_LIST_ENTRY& e = list->file[i];
      Check(e.index == i);
      Check(e.hddcount >= 1 && e.hddcount <= SBACC_HDD_MAX);
      Check(Terminated(e.filename, sizeof e.filename) && e.filename[0] != '\0');
      for (int j = 0; j < SBACC_HDD_MAX; ++j) {
        Check(Terminated(e.hddname[j], sizeof e.hddname[j]));
        Check((j < e.hddcount) == (e.hddname[j][0] != '\0'));
      }
      // The lookup finds the first accepted line of a name; a name cut to 31
      // characters may not be the whole name of its line, so only names
      // shorter than the cut are looked up.
      if (strlen(e.filename) >= SBACC_FILENAME_LEN - 1) continue;
      bool first = true;
      for (int k = 0; k < i; ++k) first = first && strcmp(list->file[k].filename, e.filename) != 0;
      if (!first) continue;
      SBACC_FILE_LIST_ENTRY found;
      Check(sbacc_l_get_filelist_entry(e.filename, &found) == 0);
      Check(strcmp(found.filename, e.filename) == 0 && found.areaaddr == e.areaaddr &&
            found.areasize == e.areasize && found.hddcount == e.hddcount &&
            memcmp(found.hddname, e.hddname, sizeof found.hddname) == 0);
      // The lookup also counts the earlier lines that carry another name but
      // were refused, the list does not.
      Check(found.index >= e.index);
    }
    // A list too small for the file, with a name as well: refused with -103
    // once it is full; with room to spare the name plays no part.
    SBACC_FILE_LIST* small =
        static_cast<SBACC_FILE_LIST*>(calloc(1, sizeof(SBACC_FILE_LIST) + sizeof(SBACC_FILE_LIST_ENTRY)));
    small->filenum = 1;
    const int rc2 = sbacc_l_get_filelist_2(small, "x", nullptr);
    Check(rc2 == (list->filenum >= 1 ? SBACC_E_LISTFULL : 0));
    free(small);
    sbacc_free_debug(list, const_cast<char*>("fuzz"), __LINE__, sbacc::AllocTrackSwitch());
  }
  SBACC_FILE_LIST_ENTRY none;
  Check(sbacc_l_get_filelist_entry("\x01no such area", &none) == (lines == SBACC_E_FILEOPEN ? lines : 0));
  Check(sbacc::AllocLiveBlocks() == blocks);
  return 0;
}
