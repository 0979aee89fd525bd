# Fails when a C++ file of the project differs from what clang-format makes of it.
file(GLOB_RECURSE files ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/tests/*.cpp
     ${SOURCE_DIR}/tests/*.h ${SOURCE_DIR}/tools/*.cpp ${SOURCE_DIR}/bench/*.cpp ${SOURCE_DIR}/fuzz/*.cpp)
set(unformatted "")
foreach(file IN LISTS files)
    execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${file}
                    RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(NOT result EQUAL 0)
        list(APPEND unformatted ${file})
    endif()
endforeach()
if(unformatted)
    string(REPLACE ";" "\n  " listing "${unformatted}")
    message(FATAL_ERROR "Not formatted (run clang-format -i):\n  ${listing}")
endif()
