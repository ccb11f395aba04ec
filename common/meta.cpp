/* Identity and version texts. They are an interface: sources and senders have seen them for years, so versions and
   dates stay what they are. Each is built with its first use, which may be before the log is there. */
#include "meta.h"

#include <array>
#include <cstring>

constexpr char FAMILY[] = "marlinet";
constexpr char FAMILY_RELEASE[] = "0.2";
constexpr char EDITION[] = "regular";
constexpr char CHECKSUM[] = "7e301497";
constexpr char BUILD_DATE[] = "2019-10-07";
constexpr char ERROR_TEXT[] = "#error#";
#if defined(__x86_64__)
constexpr char PLATFORM[] = "Linux x86_64";
#elif defined(__aarch64__)
constexpr char PLATFORM[] = "Linux aarch64";
#else
constexpr char PLATFORM[] = "Linux";
#endif

const char* app_description(const char* name) noexcept
{
    return strcmp(name, "kov") == 0 ? "Download manager" : ERROR_TEXT;
}

const char* get_app_tag(const char* name) noexcept
{
    static std::array<char, 128> tag{};

    if (tag[0])
        return tag.data();
    const int n = snprintf(tag.data(), tag.size(), "%s/%s-%d.%d (%s)", name, FAMILY_RELEASE, VERSION_MAJOR,
                           VERSION_MINOR, FAMILY);
    if (n > 0 && static_cast<size_t>(n) < tag.size())
        return tag.data();
    tag[0] = '\0';
    return ERROR_TEXT;
}

const char* get_app_info(const char* name, const char* checksum) noexcept
{
    static std::array<char, 256> info{};

    if (info[0])
        return info.data();
    const int n = snprintf(info.data(), info.size(), "%s %s %s-%d.%d (%s) %s [%s] %s built on %s", name,
                           app_description(name), FAMILY_RELEASE, VERSION_MAJOR, VERSION_MINOR, FAMILY, EDITION,
                           PLATFORM, checksum ? checksum : CHECKSUM, BUILD_DATE);
    if (n > 0 && static_cast<size_t>(n) < info.size())
        return info.data();
    info[0] = '\0';
    return ERROR_TEXT;
}

void dump_build_info(FILE* stream) noexcept
{
    std::array<char, 64> banner{};
    snprintf(banner.data(), banner.size(), "libmlx/%s-%d.%d (%s) @%u", "1.5", 6, 16, "f727d5c2", 1505383611U);
    fprintf(stream, "----\n%s [%s]\n----\n\n", banner.data(), "-ggdb3");
}
