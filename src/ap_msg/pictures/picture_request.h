// picture_request.h - a request to move a picture, taken apart.
#ifndef AP_MSG_PICTURES_PICTURE_REQUEST_H
#define AP_MSG_PICTURES_PICTURE_REQUEST_H

#include "ap_msg/request_head.h"

struct PictureRequest {
    Request to; // the target
    uint32_t hor;
    uint32_t ver;
    char name[message::kLongestPictureName + 1];
};

/** Take a request head and its data apart. False: no picture size, or too long a name (logged). */
bool read_picture_request(const void *req, PictureRequest &picture);

#endif
