# Proves that the thread-safety analysis bites: with the flags of the
# MARLO_THREAD_SAFETY build, the snippets of cmake/thread_safety/ that break
# a lock rule must fail to compile, with the analysis as the reason, and the
# one that keeps every rule must compile. Runs at configure time.

function(marlo_thread_safety_compile source result output)
    set(dir ${PROJECT_BINARY_DIR}/thread_safety_check)
    get_filename_component(name ${source} NAME_WE)
    set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
    # A name of its own: a caller's variable of the same name would hide
    # the cache entry try_compile writes.
    try_compile(MARLO_THREAD_SAFETY_${name} ${dir}/${name}
        SOURCES ${PROJECT_SOURCE_DIR}/cmake/thread_safety/${source}
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${PROJECT_SOURCE_DIR}/include"
        COMPILE_DEFINITIONS -Wthread-safety -Wthread-safety-beta -Werror
        CXX_STANDARD 17
        CXX_STANDARD_REQUIRED ON
        OUTPUT_VARIABLE log)
    set(${result} ${MARLO_THREAD_SAFETY_${name}} PARENT_SCOPE)
    set(${output} "${log}" PARENT_SCOPE)
endfunction()

function(marlo_check_thread_safety)
    marlo_thread_safety_compile(locked.cpp compiled log)
    if(NOT compiled)
        message(FATAL_ERROR "Correctly locked code fails the thread-safety analysis:\n${log}")
    endif()
    foreach(source unguarded_write.cpp missing_lock.cpp after_unlock.cpp wrong_order.cpp
            unannotated_predicate.cpp)
        marlo_thread_safety_compile(${source} compiled log)
        if(compiled)
            message(FATAL_ERROR "The thread-safety analysis accepts cmake/thread_safety/${source}, "
                "which breaks a lock rule: the annotations of marlo/base/mutex.h do not work")
        endif()
        if(NOT log MATCHES "-Wthread-safety")
            message(FATAL_ERROR "cmake/thread_safety/${source} fails for another reason than "
                "the thread-safety analysis:\n${log}")
        endif()
    endforeach()
    message(STATUS "Thread-safety analysis rejects the unlocked snippets")
endfunction()
