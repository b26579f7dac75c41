// Process-wide state of the library.
#define SBACC_MODULE SBACC_MODULE_SBACC
#include "sbacc_alloc.h"
#include "sbacc_core.h"
#include "sbacc_ma.h"
#include "sbacc_trace.h"

int sbacc_cntno = 0;
SBACC_FILE_LIST* p_sbacc_file_list = nullptr;
SBACC_DATA_REPAIR* p_sbacc_data_repair = nullptr;
boolean_t sbacc_repair_thread_flag = B_FALSE;

void sbacc_reset_process_state() {
  if (p_sbacc_file_list != nullptr) SBACC_FREE(p_sbacc_file_list);
  p_sbacc_file_list = nullptr;
  p_sbacc_data_repair = nullptr;
  sbacc_cntno = 0;
  sbacc_repair_thread_flag = B_FALSE;
  sbacc_ma_repairlock_forget();
}
