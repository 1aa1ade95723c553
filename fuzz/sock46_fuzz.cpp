// sock46_fuzz.cpp - texts of addresses, ports and hosts: the address lies within the text, whatever
// it is; the text of an address reads back; names of the loopback address are known as such.
#include "fuzz.h"
#include "internal/in46addr.h"
#include "koutil/rawip.h"
#include "koutil/sock46.h"
#include "koutil/subr2.h"

#include <arpa/inet.h>

namespace
{

void address_and_port(const uint8_t *data, size_t size)
{
    const Text text = text_of(data, size);
    const char *const end = text.get() + strlen(text.get());
    in46addr_t loopback = {};
    if (IsLoopbackHostname(text.get(), &loopback) == 1) {
        require(IsLocalAddr(&loopback) == 1 && strpbrk(text.get(), "1lL") != nullptr);
    }
    char *addr = nullptr;
    unsigned short port = 0;
    ExtractAddrPort(text.get(), &addr, &port);
    require(addr == nullptr || (addr >= text.get() && addr + strlen(addr) <= end && *addr != '\0'));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    address_and_port(data, size);
    in46addr_t address = {};
    memcpy(&address, data, size < sizeof address ? size : sizeof address);
    const Text name = room_of(256);
    const Text groups = room_of(256);
    RawIp(&address, name.get());
    const bool ipv4 = strchr(name.get(), ':') == nullptr;
    const std::string mapped = (ipv4 ? "::ffff:" : "") + std::string(name.get());
    in46addr_t again = {};
    require(inet_pton(AF_INET6, mapped.c_str(), &again) == 1 &&
            memcmp(&again, &address, sizeof again) == 0);
    require(inet_pton(AF_INET6, koutil::raw_ip_groups(address, groups.get()), &again) == 1 &&
            memcmp(&again, &address, sizeof again) == 0);

    const std::string bracketed = "[" + std::string(name.get()) + "]:2049";
    const Text text = text_of(bracketed.data(), bracketed.size());
    char *addr = nullptr;
    unsigned short port = 0;
    ExtractAddrPort(text.get(), &addr, &port);
    // An IPv4 text has one colon in all: the brackets stay.
    require(port == 2049 && addr != nullptr &&
            strncmp(ipv4 ? addr + 1 : addr, name.get(), strlen(name.get())) == 0);
    return 0;
}
