# ruk_options: the warnings, the sanitizers and the feature macros that every target shares.
add_library(ruk_options INTERFACE)
target_compile_definitions(ruk_options INTERFACE _GNU_SOURCE)
target_compile_options(ruk_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-align -Wcast-qual
    -Wformat=2 -Wundef -Wdouble-promotion -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
    $<$<BOOL:${RUK_WERROR}>:-Werror>)

# For 32-bit ARM functions that throw nothing are otherwise left out of the tables by which the crash
# handler follows the stack, and it would end at the first of them. Other machines do this anyway.
target_compile_options(ruk_options INTERFACE -funwind-tables)

# The checks for undefined behaviour are for what is tested; in test code they only take time.
define_property(TARGET PROPERTY RUK_IS_TEST INITIALIZE_FROM_VARIABLE DEFAULT_RUK_IS_TEST
                BRIEF_DOCS "compiled as test code")

if(RUK_SANITIZE)
    target_compile_options(ruk_options INTERFACE -fsanitize=${RUK_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all
        $<$<BOOL:$<TARGET_PROPERTY:RUK_IS_TEST>>:-fno-sanitize=undefined>)
    target_link_options(ruk_options INTERFACE -fsanitize=${RUK_SANITIZE})
endif()
