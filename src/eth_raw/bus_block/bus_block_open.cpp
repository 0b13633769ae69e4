// Handles for block transfers, and the start and end of their use.
#include "eth_raw/bus_block.h"

#include "eth_raw/bus_block/bus_semaphore.h"
#include "log/write.h"

#include <algorithm>
#include <array>

int eth_raw_tranfser_set(eth_init *records, EthRawTrans *xfer, uint32_t cnt) {
    if (cnt > MAX_ETH || (cnt > 0 && (records == nullptr || xfer == nullptr))) {
        return -1;
    }
    for (uint32_t i = 0; i < cnt; i++) {
        xfer[i].sock_fd = records[i].sock_fd;
        xfer[i].addr = &records[i].addr;
    }
    return 0;
}

int Open_Eth_Raw(EthRawTrans *xfer, uint32_t cnt) {
    if (cnt > MAX_ETH) {
        LOG("invalid cnt(%d).\n", static_cast<int>(cnt));
        return -1;
    }
    if (xfer == nullptr && cnt > 0) {
        LOG("%s:%d:invalid parameter(xfer).\n", __func__, __LINE__);
        return -1;
    }
    int result = netdev_init(g_eth_init, MAX_ETH);
    if (result < 0) {
        LOG("netdev_init() failed(%d).\n", result);
        return -1;
    }
    std::array<EthRawTrans, MAX_ETH> handles{};
    result = eth_raw_tranfser_set(g_eth_init, handles.data(), cnt);
    if (result < 0) {
        LOG("%s:%d:eth_raw_tranfser_set() failed.\n", __func__, __LINE__);
        return result;
    }
    std::copy_n(handles.begin(), cnt, xfer);
    return find_or_make_semaphore();
}

int Close_Eth_Raw(void) {
    del_semvalue();
    return 0;
}
