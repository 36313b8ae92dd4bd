#include "console/distinct-files.h"

#include <filesystem>
#include <sys/stat.h>

#include "console/errors.h"

namespace console
{

namespace
{

// Returns the absolute path without links, "." and "..". Its last parts may be missing.
std::filesystem::path real_path(const std::string& path)
{
    std::error_code error; // after an error, the path is compared as it is
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    const std::filesystem::path result = std::filesystem::weakly_canonical(absolute, error);
    return error ? std::filesystem::path(path) : result;
}

bool is_same_file(const std::string& left, const std::string& right)
{
    struct stat left_attributes {
    };
    struct stat right_attributes {
    };
    const bool is_left_there = stat(left.c_str(), &left_attributes) == 0;
    const bool is_right_there = stat(right.c_str(), &right_attributes) == 0;
    if (!is_left_there && !is_right_there) return real_path(left) == real_path(right);
    return is_left_there && is_right_there && !S_ISCHR(left_attributes.st_mode) &&
           left_attributes.st_dev == right_attributes.st_dev && left_attributes.st_ino == right_attributes.st_ino;
}

} // namespace

ats::result<> check_distinct_files(const std::vector<used_file>& files)
{
    for (auto later = files.begin(); later != files.end(); ++later)
        for (auto earlier = files.begin(); earlier != later; ++earlier)
            if (!earlier->path.empty() && !later->path.empty() && is_same_file(earlier->path, later->path))
                return ats::fail(ats::error_kind::invalid, earlier->name + " and " + later->name +
                                                               " are the same file, " + quote(later->path) +
                                                               ": choose another file for " + later->name);
    return {};
}

} // namespace console
