/* The products export the public interface and nothing else (Overview,
 * Conventions; ARCHITECTURE.md section 4): the shared library is loaded at
 * run time and called through its exported names. */
#include "support/support.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

struct Library {
#ifdef _WIN32
    HMODULE module = LoadLibraryA(TRNW_DLL_PATH);
    void *Find(const char *name) { return module ? (void *)GetProcAddress(module, name) : nullptr; }
    ~Library() { if (module) FreeLibrary(module); }
#else
    void *module = dlopen(TRNW_DLL_PATH, RTLD_NOW | RTLD_LOCAL);
    void *Find(const char *name) { return module ? dlsym(module, name) : nullptr; }
    ~Library() { if (module) dlclose(module); }
#endif
};

TEST(Exports, VersionThroughTheSharedLibrary)
{
    Library library;
    ASSERT_NE(library.module, nullptr) << TRNW_DLL_PATH;
    typedef int32_t(IMGAPI * VersionFunction)(int32_t *, int32_t *);
    auto version = reinterpret_cast<VersionFunction>(library.Find("IMG_ifl_version"));
    ASSERT_NE(version, nullptr);
    int32_t major = 0, minor = 0;
    EXPECT_EQ(version(&major, &minor), 0);
    EXPECT_EQ(major, 6);
    EXPECT_EQ(minor, 12);
}

TEST(Exports, HandleCallsThroughTheSharedLibrary)
{
    Library library;
    ASSERT_NE(library.module, nullptr);
    typedef int32_t(IMGAPI * Info)(int32_t, int32_t *, int32_t *, int32_t *);
    typedef int32_t(IMGAPI * Angle)(int32_t, int32_t);
    auto info = reinterpret_cast<Info>(library.Find("IMG_bitmap_info"));
    auto angle = reinterpret_cast<Angle>(library.Find("IMG_set_display_angle"));
    ASSERT_NE(info, nullptr);
    ASSERT_NE(angle, nullptr);
    int32_t a, b, c;
    EXPECT_EQ(info(-1, &a, &b, &c), IMG_ERR_HANDLE);
    EXPECT_EQ(angle(7, 90), IMG_ERR_HANDLE);
}

TEST(Exports, InternalRoutinesAreHidden)
{
    Library library;
    ASSERT_NE(library.module, nullptr);
    for (const char *name : {"ImgRead", "ImgAlloc", "ImgTableGet", "RunEncodeRow", "PlatformAlloc"})
        EXPECT_EQ(library.Find(name), nullptr) << name;
}

} // namespace
