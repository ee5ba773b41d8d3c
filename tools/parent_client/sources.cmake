# The parent client's sources, listed once: the tools' library and the fuzz
# build (which has no tools/ of its own) both take them from here.
set(PARENT_CLIENT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/child.cpp
  ${CMAKE_CURRENT_LIST_DIR}/report_tables.cpp
  ${CMAKE_CURRENT_LIST_DIR}/client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/temp_dir.cpp
  ${CMAKE_CURRENT_LIST_DIR}/options.cpp
)
