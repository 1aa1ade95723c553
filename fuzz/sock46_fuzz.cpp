// sock46_fuzz.cpp - texts of an address and a port: the address lies within the text, whatever it
// is, and the text of an address reads back.
#include "koutil/rawip.h"
#include "koutil/sock46.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    char *addr = nullptr;
    unsigned short port = 0;
    ExtractAddrPort(text.data(), &addr, &port);
    if (addr != nullptr &&
        (addr < text.data() || addr + strlen(addr) > text.data() + size || *addr == '\0')) {
        abort();
    }

    in46addr_t address = {};
    if (size != 0) {
        memcpy(&address, data, size < sizeof address ? size : sizeof address);
    }
    char name[256];
    RawIp(&address, name);
    std::string bracketed = "[" + std::string(name) + "]:2049";
    ExtractAddrPort(bracketed.data(), &addr, &port);
    const bool ipv4 = strchr(name, ':') == nullptr; // one colon in all: the brackets stay
    if (port != 2049 || addr == nullptr ||
        strncmp(ipv4 ? addr + 1 : addr, name, strlen(name)) != 0) {
        abort();
    }
    return 0;
}
