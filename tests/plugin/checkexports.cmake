# cmake -DNM=<nm> -DMODULE=<libqemu.so> -P checkexports.cmake
# Fails unless the dynamic symbol table defines getVMToolsEngine and nothing else.
execute_process(COMMAND ${NM} -D --defined-only ${MODULE}
                OUTPUT_VARIABLE listing ERROR_VARIABLE errors RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "nm failed on ${MODULE}: ${errors}")
endif()

string(REPLACE "\n" ";" lines "${listing}")
set(symbols "")
foreach(line IN LISTS lines)
    string(STRIP "${line}" line)
    if(line STREQUAL "")
        continue()
    endif()
    string(REGEX REPLACE "^.* " "" symbol "${line}")
    list(APPEND symbols "${symbol}")
endforeach()

if(NOT symbols STREQUAL "getVMToolsEngine")
    message(FATAL_ERROR "${MODULE} must define only getVMToolsEngine, it defines: ${symbols}")
endif()
message(STATUS "${MODULE} defines only getVMToolsEngine")
