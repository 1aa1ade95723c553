// brandcfg_test.cpp - the branding file, each case in a process of its own.
#include "koutil/brandcfg.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <vector>

namespace
{

// Prints the texts as the files with the given contents leave them, one after the other.
std::string texts(const std::string &root, const std::vector<std::string> &files)
{
    return support::run_in_child([&] {
               setenv("VORNROOT", root.c_str(), 1);
               configure_branding(); // finds no file
               for (const std::string &text : files) {
                   if (!text.empty()) {
                       support::write_file(root + "/oem/oem.inf", text);
                   }
                   configure_branding();
                   printf("%s|%s|%s|%s|%s|%s\n", BrandName, BrandAbbrv, BrandPrompt, BrandCompany,
                          BrandBitmap, BrandIcon);
               }
               unlink((root + "/oem/oem.inf").c_str());
               return 0;
           })
        .out;
}

std::string with(const std::string &dir, const std::string &name = "Kovaline",
                 const char *others = "KOVA|koadmin|Zelkor")
{
    return name + "|" + others + "||" + (dir + "/oem/icon.ico").substr(0, 127) + "\n";
}

} // namespace

TEST(Branding, TakesKeywordsAndValuesAsTheLinesHaveThem)
{
    const support::TempDir dir;
    const std::string &root = dir.path();
    ASSERT_EQ(mkdir((dir / "oem").c_str(), 0755), 0);
    const std::string forty = "0123456789012345678901234567890123456789";
    const struct {
        std::string text;
        std::string expected;
    } cases[] = {
        {"", with(root)},
        {"BrandName Example Storage\n", with(root, "Example Storage")},
        {"BrandName  Example\r\n", with(root, " Example")},
        {"\t BrandName\tTab\tbed", with(root, "Tab\tbed")},
        {"brandname Example\nBrandNames x\n# BrandName x\n#BrandName x\n", with(root)},
        {"BrandName\nBrandName \nBrandName\r\nBrandName \r x\n\n \n", with(root)},
        {"BrandName " + forty + "\n", with(root, forty.substr(0, 32))},
        {"BrandName " + forty + "\nBrandName x\n", with(root, "x")},
        {"BrandCompanyAbbreviation XYZ\nBrandCompany no\nBrandPrompt p\nBrandAbbrv A\nBrandIcon i",
         with(root, "Kovaline", "A|p|XYZ")},
        {std::string(255, 'x') + "BrandName late\n", with(root, "late")},
        {std::string("BrandName a\0b\nBrandAbbrv B\n", 27), with(root, "a", "B|koadmin|Zelkor")},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(texts(root, {each.text}), each.expected) << each.text;
    }
    // A file that was read is not read again; a directory too long is cut, and has no file.
    EXPECT_EQ(texts(root, {"BrandName One", "BrandName Two"}),
              with(root, "One") + with(root, "One"));
    const std::string deep = "/" + std::string(245, 'd');
    EXPECT_EQ(texts(deep, {""}), with(deep));
}
