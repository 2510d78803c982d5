// Loads the libraries late and lets them go again, in a program that is linked with none of them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string_view>

namespace Velm {
struct ModuleInspectData;
}

namespace {

void* load(const char* library, int flags = 0) {
  void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL | flags);
  EXPECT_NE(handle, nullptr) << dlerror();
  return handle;
}

// Those that need others go last, and would keep them.
TEST(LoadingTest, LibrariesStayLoadedForEver) {
  for (const char* library : {PLATFORM, PROTOS, LIBRARY}) {
    EXPECT_EQ(dlopen(library, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(dlclose(load(library)), 0);
    EXPECT_EQ(dlclose(load(library, RTLD_NOLOAD)), 0) << library;
  }
  using Find = const Velm::ModuleInspectData* (*)(std::string_view);
  const auto find = reinterpret_cast<Find>(
      dlsym(load(PLATFORM),
            "_ZN4Velm17ModuleInspectData4findESt17basic_string_viewIcSt11char_traitsIcEE"));
  ASSERT_NE(find, nullptr);
  EXPECT_NE(find("StreamingToolkitSm"), nullptr);
  EXPECT_EQ(find("no such module"), nullptr) << "every record was looked at";
  load(LIBRARY);
}

}  // namespace
