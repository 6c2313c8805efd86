// All that the executable may import, libcurl's functions and libSystem's, by Apple's names, with what stands in for
// each on Linux: the function of the same name, or where Linux differs one of this file, system.cpp or calls.S.
#include <curl/curl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "load.h"
#include "system.h"

extern "C" {

void stubBinder();  // calls.S

#if defined(__aarch64__)
#define VARIADIC(function) variadic_##function
void variadic_openFile();
void variadic_controlFile();
void variadic_curl_easy_setopt();
void variadic_curl_easy_getinfo();
void variadic_snprintf();
#else
#define VARIADIC(function) function
#endif

}  // extern "C"

namespace macho {

namespace {

struct Import {
  std::string_view name;
  const void* address;
};

template <class Function>
const void* addressOf(Function* function) {
  return reinterpret_cast<const void*>(function);
}

// A function of Linux's that sets errno.
template <auto function, class Result, class... Arguments>
const void* withError(Result (*)(Arguments...)) {
  return addressOf(call<function, Arguments...>);
}
#define WITH_ERROR(function) withError<function>(function)

// What is called only where the process is about to abort, or to look for a newer system.
Import untranslated(const char* name, void (*refusal)()) { return {name, addressOf(refusal)}; }
#define REFUSAL(name) [] { refuse("calls " name ", for which there is nothing here"); }
#define UNTRANSLATED(name) untranslated(name, REFUSAL(name))

const void* zeroMemory(void* memory, std::size_t size) { return memset(memory, 0, size); }

// Images stay: there is nothing to call when one goes.
void callWhenImageGoes(const void* /*function*/) {}

// Data whose layout isn't known here: the address is one that can't be read.
const void* const kUnreadable = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);

const Import kCurl[] = {
    {"_curl_easy_cleanup", addressOf(curl_easy_cleanup)},
    {"_curl_easy_getinfo", addressOf(VARIADIC(curl_easy_getinfo))},
    {"_curl_easy_init", addressOf(curl_easy_init)},
    {"_curl_easy_perform", addressOf(curl_easy_perform)},
    {"_curl_easy_setopt", addressOf(VARIADIC(curl_easy_setopt))},
    {"_curl_global_cleanup", addressOf(curl_global_cleanup)},
    {"_curl_global_init", addressOf(curl_global_init)},
    {"_curl_slist_append", addressOf(curl_slist_append)},
    {"_curl_slist_free_all", addressOf(curl_slist_free_all)},
};

const Import kSystem[] = {
    {"dyld_stub_binder", addressOf(stubBinder)},
    {"__dyld_find_unwind_sections", addressOf(findUnwindSections)},
    {"__dyld_register_func_for_remove_image", addressOf(callWhenImageGoes)},
    {"__DefaultRuneLocale", kUnreadable},
    {"___bzero", addressOf(zeroMemory)},
    {"___error", addressOf(addressOfError)},
    {"___stderrp", static_cast<const void*>(&stderr)},
    {"_abort", addressOf(abort)},
    {"_aligned_alloc", WITH_ERROR(aligned_alloc)},
    {"_atoi", addressOf(atoi)},
    {"_bzero", addressOf(zeroMemory)},
    {"_calloc", WITH_ERROR(calloc)},
    {"_close", WITH_ERROR(close)},
    {"_fcntl", addressOf(VARIADIC(controlFile))},
    {"_fflush", WITH_ERROR(fflush)},
    {"_fputc", WITH_ERROR(fputc)},
    {"_free", addressOf(free)},
    {"_fwrite", WITH_ERROR(fwrite)},
    {"_malloc", WITH_ERROR(malloc)},
    {"_memchr", addressOf<const void*(const void*, int, std::size_t)>(memchr)},
    {"_memcmp", addressOf(memcmp)},
    {"_memcpy", addressOf(memcpy)},
    {"_memmove", addressOf(memmove)},
    {"_mmap", addressOf(mapMemory)},
    {"_munmap", WITH_ERROR(munmap)},
    {"_open", addressOf(VARIADIC(openFile))},
    {"_poll", addressOf(pollFiles)},
    {"_posix_memalign", addressOf(posix_memalign)},
    {"_pthread_cond_broadcast", addressOf(broadcast)},
    {"_pthread_getspecific", addressOf(getSpecific)},
    {"_pthread_key_create", addressOf(createKey)},
    {"_pthread_mach_thread_np", addressOf(numberOfThread)},
    {"_pthread_mutex_lock", addressOf(lockMutex)},
    {"_pthread_mutex_unlock", addressOf(unlockMutex)},
    {"_pthread_once", addressOf(callOnce)},
    {"_pthread_self", addressOf(pthread_self)},
    {"_pthread_setspecific", addressOf(setSpecific)},
    {"_realloc", WITH_ERROR(realloc)},
    {"_signal", addressOf(setSignalHandler)},
    {"_snprintf", addressOf(VARIADIC(snprintf))},
    {"_strcmp", addressOf(strcmp)},
    {"_strlen", addressOf(strlen)},
    {"_strstr", addressOf<const char*(const char*, const char*)>(strstr)},
    {"_write", addressOf(writeFile)},
    UNTRANSLATED("_dladdr"),
    UNTRANSLATED("_dlopen"),
    UNTRANSLATED("_dlsym"),
    UNTRANSLATED("_fprintf"),
    UNTRANSLATED("_pthread_cond_wait"),
    UNTRANSLATED("_vfprintf"),
};

template <std::size_t size>
const void* find(const Import (&imports)[size], std::string_view symbol) {
  for (const Import& import : imports) {
    if (import.name == symbol) return import.address;
  }
  return nullptr;
}

}  // namespace

const void* findInLibrary(std::string_view library, std::string_view symbol) {
  if (library == "/usr/lib/libcurl.4.dylib") return find(kCurl, symbol);
  if (library == "/usr/lib/libSystem.B.dylib") return find(kSystem, symbol);
  return nullptr;
}

}  // namespace macho
