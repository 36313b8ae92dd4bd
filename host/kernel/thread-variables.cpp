#include "host/kernel/thread-variables.h"

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace kernel
{

namespace
{

// The image and the thread to which a copy of variables belongs.
struct owner {
    const thread_variables* image;
    const void* thread;

    bool operator<(const owner& other) const
    {
        const std::less<const void*> less;
        return image != other.image ? less(image, other.image) : less(thread, other.thread);
    }
};

// The copies of all threads. Modules have few thread-local variables and seldom use them, so one lock is enough.
struct all_variables {
    std::mutex mutex;
    std::map<owner, std::unique_ptr<char[]>> copies;
};

// The object is never destroyed, because threads may end after the program's statics are destroyed.
all_variables& variables()
{
    static auto& instance = *new all_variables;
    return instance;
}

// The address of this object identifies a thread. When the thread ends, the destructor frees the thread's copies.
struct thread_mark {
    bool has_variables = false;

    ~thread_mark()
    {
        if (!has_variables) return;
        const std::lock_guard lock(variables().mutex);
        std::erase_if(variables().copies, [this](const auto& each) { return each.first.thread == this; });
    }
};

thread_local thread_mark mark_of_thread;

} // namespace

thread_variables::~thread_variables()
{
    const std::lock_guard lock(variables().mutex);
    auto& copies = variables().copies;
    auto first = copies.lower_bound({this, nullptr}), end = first;
    while (end != copies.end() && end->first.image == this) ++end;
    copies.erase(first, end);
}

char* thread_variables::copy_of_this_thread()
{
    thread_mark& mark = mark_of_thread;
    const std::lock_guard lock(variables().mutex);
    std::unique_ptr<char[]>& copy = variables().copies[{this, &mark}];
    if (!copy) {
        mark.has_variables = true;
        copy = std::make_unique<char[]>(layout_.bytes);
        std::memcpy(copy.get(), layout_.first_values.data(), layout_.first_values.size());
    }
    return copy.get();
}

void* address_of_thread_variable(const thread_variable_index* index)
{
    return index->image->copy_of_this_thread() + index->offset;
}

} // namespace kernel
