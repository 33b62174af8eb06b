# Turns a frozen slot table (slot, name, type per line) into Qt Test rows that read each
# member's vtable slot and compare its type, so the table itself lives only as data.
file(STRINGS "${IN}" lines REGEX "^[0-9]")
set(rows "")
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^([0-9]+) ([A-Za-z0-9_]+) (.+)$")
        message(FATAL_ERROR "Bad slot line: ${line}")
    endif()
    set(member "&${CLASS}::${CMAKE_MATCH_2}")
    string(APPEND rows "QTest::newRow(\"${CLASS}::${CMAKE_MATCH_2}\") << ${CMAKE_MATCH_1} << slotOf(${member})"
                       " << std::is_same<decltype(${member}), Member<${CLASS}, ${CMAKE_MATCH_3}>>::value;\n")
endforeach()
file(WRITE "${OUT}" "${rows}")
