// brandcfg_test.cpp - the branding file, each case in a process of its own.
#include "koutil/brandcfg.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace
{

void print_texts()
{
    printf("%s|%s|%s|%s|%s|%s\n", BrandName, BrandAbbrv, BrandPrompt, BrandCompany, BrandBitmap,
           BrandIcon);
}

// Reads the branding file below `root` in a fresh process; `then` runs after the first reading.
std::string texts(
    const std::string &root, const std::function<void()> &then = [] {})
{
    return support::run_in_child([&] {
               setenv("VORNROOT", root.c_str(), 1);
               configure_branding();
               print_texts();
               then();
               return 0;
           })
        .out;
}

std::string with(const std::string &dir, const char *name = "Kovaline", const char *abbrv = "KOVA",
                 const char *prompt = "koadmin", const char *company = "Zelkor")
{
    return std::string(name) + "|" + abbrv + "|" + prompt + "|" + company + "||" +
           (dir + "/oem/icon.ico").substr(0, 127) + "\n";
}

} // namespace

TEST(Branding, TakesKeywordsAndValuesAsTheLinesHaveThem)
{
    const support::TempDir dir;
    const std::string &root = dir.path();
    const std::string file = dir / "oem/oem.inf";
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
        {"BrandName " + forty + "\n", with(root, forty.substr(0, 32).c_str())},
        {"BrandName " + forty + "\nBrandName x\n", with(root, "x")},
        {"BrandCompanyAbbreviation XYZ\nBrandCompany no\nBrandPrompt p\nBrandAbbrv A\nBrandIcon i",
         with(root, "Kovaline", "A", "p", "XYZ")},
        {std::string(255, 'x') + "BrandName late\n", with(root, "late")},
        {std::string("BrandName a\0b\nBrandAbbrv B\n", 27), with(root, "a", "B")},
    };
    for (const auto &each : cases) {
        support::write_file(file, each.text);
        EXPECT_EQ(texts(root), each.expected) << each.text;
    }
}

TEST(Branding, LooksForAMissingFileAgainAndReadsAFoundOneOnce)
{
    const support::TempDir dir;
    const std::string &root = dir.path();
    ASSERT_EQ(mkdir((dir / "oem").c_str(), 0755), 0);
    const auto out = texts(root, [&] {
        support::write_file(dir / "oem/oem.inf", "BrandName One\n");
        configure_branding();
        print_texts();
        support::write_file(dir / "oem/oem.inf", "BrandName Two\n");
        configure_branding();
        print_texts();
    });
    EXPECT_EQ(out, with(root) + with(root, "One") + with(root, "One"));
}

TEST(Branding, CutsWhatALongDirectoryMakesTooLong)
{
    const std::string root = "/" + std::string(245, 'd');
    EXPECT_EQ(texts(root), with(root));
}

// With a missing file the texts may be read while other threads configure them.
TEST(Branding, RepeatedDefaultsDisturbNoReader)
{
    const auto outcome = support::run_in_child([] {
        setenv("VORNROOT", "/nonexistent", 1);
        configure_branding();
        std::thread writer([] {
            for (int i = 0; i < 200; i++) {
                configure_branding();
            }
        });
        int faults = 0;
        for (int i = 0; i < 2000; i++) {
            faults += std::string_view(BrandName) != "Kovaline";
        }
        writer.join();
        return faults == 0 ? 0 : 1;
    });
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
}
