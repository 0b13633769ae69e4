# ruk_options: the warnings, the sanitizers and the feature macros that every target shares.
add_library(ruk_options INTERFACE)
target_compile_definitions(ruk_options INTERFACE _GNU_SOURCE)
target_compile_options(ruk_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-align -Wcast-qual
    -Wformat=2 -Wundef -Wdouble-promotion -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
    $<$<BOOL:${RUK_WERROR}>:-Werror>)

if(RUK_SANITIZE)
    target_compile_options(ruk_options INTERFACE -fsanitize=${RUK_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
    target_link_options(ruk_options INTERFACE -fsanitize=${RUK_SANITIZE})
endif()
