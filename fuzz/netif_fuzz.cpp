// netif_fuzz.cpp - the kernel's table of IPv6 addresses: whatever its lines hold, the records stay
// within the list, carry usable addresses and lead to lists that agree with them.
#include "fuzz.h"
#include "internal/hostaddrs.h"
#include "internal/netif.h"

#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static ifname_list_t list;
    static SysNics_t nics;
    list = {};
    if (size % 7 == 0) { // a list with room for two
        list.count = IFNAME_LIST_MAX - 2;
        for (il_info &each : list.info) {
            each.is_virtual = 1;
        }
    }
    FILE *inet6 = size > 0 ? fmemopen(const_cast<uint8_t *>(data), size, "r") : nullptr;
    il_info record = {};
    strcpy(record.ifname, "eth0");
    strcpy(record.macaddr, "0x001122334455");
    record.ipaddr.s_addr = htonl(0x0A000005);
    const int before = list.count;
    koutil::append_records(list, record, inet6);
    if (inet6 != nullptr) {
        fclose(inet6);
    }
    require(list.count > before && list.count <= IFNAME_LIST_MAX);
    for (int i = before + 1; i < list.count; i++) {
        require(koutil::usable_ipv6(list.info[i].ip6addr) && list.info[i].is_virtual == 1);
    }
    mac_addrs_t macs;
    in46addr_t addrs[HOST_ADDRS_MAX];
    const int primary = koutil::choose_primary(list, {});
    koutil::make_mac_list(list, primary, macs);
    koutil::make_addr_list(list, primary, addrs);
    koutil::make_nic_list(list, nics);
    require(macs.mac_addr_count == 1 && nics.si_count == 1);
    require(nics.si_nic[0].ni_ipaddr_count <= HOST_NIC_ADDRS_MAX);
    return 0;
}
