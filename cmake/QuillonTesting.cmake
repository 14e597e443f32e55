# quillon_add_qtest(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>]
#                   [TIMEOUT <seconds>] [ENVIRONMENT <VAR=value...>])
#
# Builds one Qt Test program and registers it with CTest. Tests run on the
# offscreen platform unless they ask for another one through ENVIRONMENT.
function(quillon_add_qtest name)
    cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT" ${ARGN})
    add_executable(${name} ${T_SOURCES})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE Qt5::Test ${T_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 300)
    endif()
    set(env QT_QPA_PLATFORM=offscreen)
    if(QUILLON_SANITIZE)
        # Full stacks so the suppressions can name Qt's leaking platform
        # plugin; any other leak or undefined behaviour fails the test.
        list(APPEND env
             "ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:abort_on_error=1"
             "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/lsan-suppressions.txt"
             "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
    endif()
    list(APPEND env ${T_ENVIRONMENT})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${env}")
    if(T_LABELS)
        set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
    endif()
endfunction()
