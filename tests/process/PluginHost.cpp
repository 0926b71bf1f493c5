// A host that loads a plug-in, uses it, closes it and loads it again. Arguments: the plug-in, the
// directory of its store, and how often to load it.

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const int count = std::atoi(argv[3]);
    for (int call = 0; call < count; ++call) {
        void* const plugin = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr) {
            std::fprintf(stderr, "%s\n", ::dlerror());
            return 3;
        }
        using UseStore = int (*)(const char*, int);
        const auto useStore = reinterpret_cast<UseStore>(::dlsym(plugin, "useStore"));
        if (useStore == nullptr || useStore(argv[2], call) != 0)
            return 4;
        if (::dlclose(plugin) != 0)
            return 5;
    }
    return 0;
}
