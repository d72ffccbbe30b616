# Options that make memory faults harder to exploit, for every build but Debug. scripts/lib/check_hardening checks the
# built files.
include(CheckCXXCompilerFlag)

# CET is of x86 alone, branch protection of 64-bit ARM alone; some compilers lack the guard for large stack frames.
set(lumora_hardening -fstack-protector-strong)
foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "LUMORA_HAS${flag}" has_flag)
    check_cxx_compiler_flag("-Werror ${flag}" ${has_flag})
    if(${has_flag})
        list(APPEND lumora_hardening ${flag})
    endif()
endforeach()
# The C library checks lengths only if the compiler optimizes, and warns otherwise; the sanitizers check more.
if(NOT LUMORA_SANITIZE)
    list(APPEND lumora_hardening
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
endif()
set(lumora_hardening "$<$<NOT:$<CONFIG:Debug>>:${lumora_hardening}>")

# Tables of functions are read-only after the loading, which fails if a function is missing: without `now`, a call of
# that function would end the process later.
set(lumora_link_hardening -Wl,-z,relro,-z,now -Wl,-z,noexecstack)

# A library of ours stays loaded until the process ends: its threads, and those of the platform, may still run in it.
function(lumora_keep_loaded target)
    target_link_options(${target} PRIVATE -Wl,-z,nodelete)
endfunction()
