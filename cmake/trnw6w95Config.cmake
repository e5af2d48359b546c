# find_package(trnw6w95): the imported target trnw6w95::trnw6w95 (the shared
# library and the folder of imgapi.h).
include("${CMAKE_CURRENT_LIST_DIR}/trnw6w95Targets.cmake")
