// fields.h - the fields of a message by their names, for those who look at one.
#ifndef RUK_IPC_FIELDS_H
#define RUK_IPC_FIELDS_H

#include "ap_msg/message_layout.h"

namespace ipc {

struct NamedField {
    const char *name;
    Field field;
};

constexpr NamedField kFields[] = {
    {"aptid", message::kAptid},   {"reserved", message::kReserved}, {"data_len", message::kDataLen},
    {"result", message::kResult}, {"msg_kind", message::kKind},     {"msg_class", message::kClass},
    {"msg_id", message::kId},     {"src", message::kSource},        {"id", message::kTarget},
    {"code", message::kCode},     {"slot", message::kSlot},         {"model", message::kModel},
    {"seq", message::kSeq},       {"addr", message::kAddr},         {"len", message::kLen},
};

} // namespace ipc

#endif
