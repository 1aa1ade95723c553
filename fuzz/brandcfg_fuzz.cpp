// brandcfg_fuzz.cpp - the branding file: whatever it holds, the texts are those of a plain reading.
//
// The library reads the file once in a process. The target takes the source in, to forget that.
#include "../libutil/brandcfg.cpp"

#include "fuzz.h"

#include <algorithm>
#include <string>

namespace
{

// One line, or a part of one, of at most 255 characters.
void apply(std::string line, std::string (&texts)[BRAND_KEYWORDS])
{
    constexpr const char *names[] = {"BrandName", "BrandAbbrv", "BrandPrompt",
                                     "BrandCompanyAbbreviation"};
    line = line.c_str(); // up to a NUL
    line.erase(0, line.find_first_not_of(" \t"));
    const size_t end = line.find_first_of(" \t");
    if (end == line.npos) {
        return;
    }
    std::string value = line.substr(end + 1);
    value.resize(value.find_first_of("\r\n") != value.npos ? value.find_first_of("\r\n")
                                                           : value.size());
    for (int i = 0; i < BRAND_KEYWORDS && !value.empty(); i++) {
        if (line.substr(0, end) == names[i]) {
            texts[i] = value.substr(0, 32);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Folder folder;
    folder.write("oem/oem.inf", data, size);
    ValuesSet = false;
    configure_branding();

    std::string texts[] = {"Kovaline", "KOVA", "koadmin", "Zelkor"};
    std::string left(reinterpret_cast<const char *>(data), size);
    while (!left.empty()) {
        const size_t end = left.find('\n');
        const size_t taken = std::min({left.size(), size_t{255}, end == left.npos ? end : end + 1});
        apply(left.substr(0, taken), texts);
        left.erase(0, taken);
    }
    const char *const found[] = {BrandName, BrandAbbrv, BrandPrompt, BrandCompany};
    for (int i = 0; i < BRAND_KEYWORDS; i++) {
        require(texts[i] == found[i]);
    }
    require(BrandBitmap[0] == '\0' && strstr(BrandIcon, "/icon.ico") != nullptr);
    return 0;
}
