#include "ap_msg/pictures/picture_request.h"

#include "log/write.h"

bool read_picture_request(const void *req, PictureRequest &picture) {
    const auto *head = static_cast<const uint8_t *>(req);
    picture.to = read_request(head);
    constexpr size_t kSizeFields = message::kPictureName - message::kDataOffset;
    if (picture.to.len < kSizeFields) {
        LOG("ap_msg: picture request: %d bytes of data, %d are needed for the size\n",
            picture.to.len, static_cast<int>(kSizeFields));
        return false;
    }
    picture.hor = load_le(head, in_request(message::kPictureWidth));
    picture.ver = load_le(head, in_request(message::kPictureHeight));
    const std::span<const uint8_t> data(head + message::kRequestHeadSize, picture.to.len);
    return copy_name(text_in(data.subspan(kSizeFields)), picture.name);
}
