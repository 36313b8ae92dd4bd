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

struct owner {
    const thread_variables* image;
    const void* thread;

    bool operator<(const owner& other) const
    {
        const std::less<const void*> less;
        return image != other.image ? less(image, other.image) : less(thread, other.thread);
    }
};

// Modules have few such variables and seldom use them, so one lock is enough.
struct all_variables {
    std::mutex mutex;
    std::map<owner, std::unique_ptr<char[]>> blocks;
};

// Never destroyed, because threads may end after the program's statics are destroyed.
all_variables& variables()
{
    static auto& instance = *new all_variables;
    return instance;
}

// Identifies a thread, and frees its variables when it ends.
struct thread_mark {
    bool has_variables = false;

    ~thread_mark()
    {
        if (!has_variables) return;
        const std::lock_guard lock(variables().mutex);
        std::erase_if(variables().blocks, [this](const auto& each) { return each.first.thread == this; });
    }
};

thread_local thread_mark mark_of_thread;

} // namespace

thread_variables::~thread_variables()
{
    const std::lock_guard lock(variables().mutex);
    auto& blocks = variables().blocks;
    auto first = blocks.lower_bound({this, nullptr}), end = first;
    while (end != blocks.end() && end->first.image == this) ++end;
    blocks.erase(first, end);
}

char* thread_variables::of_this_thread()
{
    thread_mark& mark = mark_of_thread;
    const std::lock_guard lock(variables().mutex);
    std::unique_ptr<char[]>& block = variables().blocks[{this, &mark}];
    if (!block) {
        mark.has_variables = true;
        block = std::make_unique<char[]>(layout_.bytes);
        std::memcpy(block.get(), layout_.first_values.data(), layout_.first_values.size());
    }
    return block.get();
}

void* address_of_thread_variable(const thread_variable_index* index)
{
    return index->image->of_this_thread() + index->offset;
}

} // namespace kernel
