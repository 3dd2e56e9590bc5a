# clang's integer checks (MARLO_SANITIZE_INTEGER). They report what the C++
# standard allows but what is almost always a mistake here: an unsigned
# result that wraps, and an implicit conversion that drops bits or changes
# the sign. Where the code wraps on purpose, the function is listed in
# ubsan_integer_ignorelist.txt with the reason.
if(MARLO_SANITIZE_INTEGER)
    set(MARLO_INTEGER_CHECKS
        unsigned-integer-overflow,implicit-integer-truncation,implicit-integer-sign-change)
    set(ignorelist ${CMAKE_CURRENT_LIST_DIR}/ubsan_integer_ignorelist.txt)
    add_compile_options(-fsanitize=${MARLO_INTEGER_CHECKS} -fsanitize-ignorelist=${ignorelist}
        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${MARLO_INTEGER_CHECKS})
    # The compiler reads the list, the build does not track it: its digest
    # in the flags recompiles everything when it changes.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ignorelist})
    file(SHA1 ${ignorelist} ignorelist_digest)
    string(SUBSTRING ${ignorelist_digest} 0 12 ignorelist_digest)
    add_compile_definitions(MARLO_INTEGER_IGNORELIST=${ignorelist_digest})
endif()
