# libruk.a: one relocatable object in which everything that is not exported is local, because an
# archive of separate objects would show every internal name to the host's linker.
set(RUK_ONE_OBJECT ${CMAKE_CURRENT_BINARY_DIR}/ruk_one.o)
set(RUK_ALL_OBJECTS)
foreach(room IN LISTS RUK_ROOMS ITEMS main)
    list(APPEND RUK_ALL_OBJECTS $<TARGET_OBJECTS:ruk_${room}>)
endforeach()
add_custom_command(
    OUTPUT ${RUK_ONE_OBJECT}
    COMMAND ${CMAKE_LINKER} -r -o ${RUK_ONE_OBJECT} ${RUK_ALL_OBJECTS}
    COMMAND ${CMAKE_OBJCOPY} --localize-hidden --wildcard --localize-symbol=_Z* ${RUK_ONE_OBJECT}
    DEPENDS ruk_shared # made of the same objects, and again whenever one of them changes
    COMMAND_EXPAND_LISTS VERBATIM)
add_library(ruk_static STATIC ${RUK_ONE_OBJECT})
set_target_properties(ruk_static PROPERTIES OUTPUT_NAME ruk LINKER_LANGUAGE CXX)
