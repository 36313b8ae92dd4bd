// The version report of a module: a read-only /proc file "dorvex/NAME/version". Its one line shows the name, the
// version and the revision tag of the loaded module, the compiler, the kernel, and the date and time of the build. One
// source file of the module includes this header. That file calls module_version_init when the module starts and
// module_version_exit when it ends.
//
// The build may define MODULE_VERSION_COMPILER and MODULE_VERSION_KERNEL, for example as "(12.2)" with the parentheses.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kernel/memory.h"
#include "kernel/proc.h"

#ifndef MODULE_VERSION_COMPILER
#define MODULE_VERSION_COMPILER ""
#endif
#ifndef MODULE_VERSION_KERNEL
#define MODULE_VERSION_KERNEL ""
#endif

// The line of the report; null before module_version_init and after module_version_exit.
inline char* module_banner;

inline bool version_is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Returns `str`, or `def` if `str` is null, empty or only white space.
inline const char* check_str_notempty(const char* str, const char* def)
{
    for (const char* c = str; c && *c; ++c)
        if (!version_is_space(*c)) return str;
    return def;
}

// Removes white space at both ends of `str`, in place. Returns the start of the rest.
inline char* ktrim(char* str)
{
    while (version_is_space(*str)) ++str;
    for (size_t length = strlen(str); length > 0 && version_is_space(str[length - 1]); --length) str[length - 1] = '\0';
    return str;
}

// Takes the value ("ATS_1_21") out of the text of a revision keyword ("$Name: ATS_1_21 $"), and cuts it to the size of
// `value`. Returns a pointer into `value`: the text without white space at its ends. Returns null if `text` is not a
// keyword.
template <size_t size>
const char* version_keyword_value(const char* text, char (&value)[size])
{
    const char* begin = strchr(text, ':');
    const char* end = begin ? strchr(begin, '$') : nullptr;
    if (!end) return nullptr;
    ++begin;
    const size_t length = static_cast<size_t>(end - begin) < size ? static_cast<size_t>(end - begin) : size - 1;
    memcpy(value, begin, length);
    value[length] = '\0';
    return ktrim(value);
}

// Returns the line of the report, or null if there is no memory. The caller frees it with kfree. May sleep.
inline char* build_module_ver_str(const char* module_name, const char* version_string, const char* tag_name)
{
    const char* name = check_str_notempty(module_name, "Unknown");
    const char* version = check_str_notempty(version_string, "0");
    char version_value[10];
    if (const char* value = version_keyword_value(version, version_value)) version = check_str_notempty(value, "0");

    // If the tag is not a keyword, the report shows "NoTag".
    char tag_value[30];
    const char* tag = version_keyword_value(check_str_notempty(tag_name, "NoTag"), tag_value);
    tag = check_str_notempty(tag, "NoTag");

    const char* compiler = check_str_notempty(MODULE_VERSION_COMPILER, "(Unknown Compiler)");
    const char* kernel = check_str_notempty(MODULE_VERSION_KERNEL, "(Unknown Kernel)");
    constexpr const char date[] = "(" __DATE__ ")";
    constexpr size_t separators = 8; // six blanks, the line end and the NUL
    const size_t size = strlen(name) + strlen(version) + strlen(tag) + strlen(compiler) + strlen(kernel) +
                        strlen(date) + strlen(__TIME__) + separators;
    char* line = static_cast<char*>(kmalloc(size, GFP_KERNEL));
    if (line) snprintf(line, size, "%s %s %s %s %s %s %s\n", name, version, tag, compiler, kernel, date, __TIME__);
    return line;
}

// A path in /proc. It needs no allocated memory, so that the removal of the entry cannot fail for lack of memory. The
// entry must be removed, because its read handler is unmapped together with the module.
struct version_path_t {
    char text[128];
};

// Sets the path to "dorvex/NAME" followed by `rest`. Returns false if the name is null or the path is too long.
inline bool module_proc_str_create(version_path_t* path, const char* module_name, const char* rest)
{
    const int length = module_name ? snprintf(path->text, sizeof path->text, "dorvex/%s%s", module_name, rest) : -1;
    return length >= 0 && static_cast<size_t>(length) < sizeof path->text;
}

// The read handler of the /proc file.
inline int version_read_proc(char* page, char** start, off_t off, int count, int* eof, void*)
{
    snprintf(page, PROC_PAGE_SIZE, "%s", module_banner ? module_banner : "Error\n");
    const off_t length = static_cast<off_t>(strlen(page));
    if (length <= off + count) *eof = 1;
    *start = page + off;
    const off_t rest = length - off;
    return static_cast<int>(rest < 0 ? 0 : rest < count ? rest : count);
}

// Creates the file at `path`. Creates the directories "dorvex" and `directory` if they are missing. Returns null on
// failure.
inline proc_dir_entry* version_create_entry(const char* path, const char* directory)
{
    if (proc_dir_entry* entry = create_proc_entry(path, 0)) return entry;
    const bool has_directories = proc_mkdir(directory) || (proc_mkdir("dorvex") && proc_mkdir(directory));
    return has_directories ? create_proc_entry(path, 0) : nullptr;
}

// Creates the report. `version_string` and `tag_name` may be null. Returns 0. Returns -1, without a report, if there
// is no memory, if `module_name` is null or too long, or if the file cannot be created. May sleep.
inline int32_t module_version_init(const char* module_name, const char* version_string, const char* tag_name)
{
    module_banner = build_module_ver_str(module_name, version_string, tag_name);
    version_path_t path, directory;
    const bool has_paths = module_banner && module_proc_str_create(&path, module_name, "/version") &&
                           module_proc_str_create(&directory, module_name, "");
    proc_dir_entry* entry = has_paths ? version_create_entry(path.text, directory.text) : nullptr;
    if (!entry) {
        kfree(module_banner);
        module_banner = nullptr;
        return -1;
    }
    entry->data = nullptr;
    entry->read_proc = version_read_proc;
    return 0;
}

// Removes the file. The directories stay for the next load of the module. Returns 0. Returns -1 and removes nothing if
// the name is null or too long. May sleep.
inline int32_t module_version_exit(const char* module_name)
{
    version_path_t path;
    if (!module_proc_str_create(&path, module_name, "/version")) return -1;
    remove_proc_entry(path.text);
    kfree(module_banner);
    module_banner = nullptr;
    return 0;
}
