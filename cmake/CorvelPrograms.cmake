# SPDX-License-Identifier: GPL-3.0-or-later
# Hands a suite or benchmark the paths of the programs it starts, as compile-time macros, and
# builds those programs first:  corvel_pass_programs(test_x FAKE_BRIDGE=corvel-fake-bridge)
function(corvel_pass_programs name)
    foreach(pair ${ARGN})
        string(REPLACE "=" ";" parts "${pair}")
        list(GET parts 0 macro)
        list(GET parts 1 program)
        target_compile_definitions(${name} PRIVATE ${macro}="$<TARGET_FILE:${program}>")
        add_dependencies(${name} ${program})
    endforeach()
endfunction()
