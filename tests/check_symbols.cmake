# Fails unless the library's dynamic symbols are exactly the 13 exported calls,
# each defined as @@SUNWprivate_1.1.
set(expected sbacc_close sbacc_dumpout sbacc_hdd_restore sbacc_ma_hddrepair sbacc_nv_init
    sbacc_open sbacc_read sbacc_read_size sbacc_repair sbacc_repair_flag sbacc_repair_init
    sbacc_write sbacc_write_size)
execute_process(COMMAND readelf --dyn-syms -W ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(found "")
foreach(line IN LISTS lines)
  # defined (section index not UND), global or weak, function or object
  if(line MATCHES "(FUNC|OBJECT) +(GLOBAL|WEAK) +DEFAULT +[0-9]+ +([^ ]+)$")
    set(sym ${CMAKE_MATCH_3})
    if(NOT sym MATCHES "@@SUNWprivate_1\\.1$")
      message(FATAL_ERROR "unexpected exported symbol: ${sym}")
    endif()
    string(REGEX REPLACE "@@.*" "" name ${sym})
    list(APPEND found ${name})
  endif()
endforeach()
list(SORT found)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported: ${found}\nexpected: ${expected}")
endif()
message(STATUS "exports ok: ${found}")
