#include "host/kernel/proc-tree.h"

#include <functional>

#include "host/kernel/machine.h"
#include "kernel/errno.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "kernel/sync.h"

namespace kernel
{

struct proc_tree::node {
    proc_dir_entry entry{};
    mode_t mode = 0;
    bool is_directory = false;
    int users = 0;           // tasks in its handlers
    task* remover = nullptr; // waits for them to leave
    semaphore writing;       // held over the write handler
    std::map<std::string, std::shared_ptr<node>> children;
};

namespace
{

constexpr mode_t default_mode = 0444;

// "a/b/c" as its folder "a/b" and its name "c".
std::pair<std::string, std::string> split(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

} // namespace

proc_tree::proc_tree(machine& home) : home_(home), root_(std::make_shared<node>())
{
    root_->is_directory = true;
}

proc_tree::~proc_tree() = default;

std::shared_ptr<proc_tree::node> proc_tree::find(const std::string& path) const
{
    std::shared_ptr<node> at = root_;
    for (size_t begin = 0; begin < path.size() && at;) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const auto child = at->children.find(path.substr(begin, end - begin));
        at = child == at->children.end() ? nullptr : child->second;
        begin = end + 1;
    }
    return at;
}

std::string proc_tree::path_of_entry(const node& in, const kernel_module_t& owner)
{
    for (const auto& [name, child] : in.children) {
        if (child->entry.owner == &owner) return name;
        std::string below = path_of_entry(*child, owner);
        if (!below.empty()) return below.insert(0, "/").insert(0, name);
    }
    return "";
}

int proc_tree::list(const std::string& path, std::vector<proc_listing>* into) const
{
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> at = find(path);
    if (!at) return -EK_NOENT;
    if (!at->is_directory) return -EK_INVAL;
    for (const auto& [name, child] : at->children) into->push_back({name, child->is_directory, child->mode});
    return 0;
}

int proc_tree::stat(const std::string& path, proc_listing* into) const
{
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> at = find(path);
    if (!at) return -EK_NOENT;
    *into = {split(path).second, at->is_directory, at->mode};
    return 0;
}

// Keeps an entry and its owner in place while a handler of it runs.
class proc_tree::visit
{
  public:
    visit(proc_tree& tree, const std::string& path) : tree_(tree)
    {
        const std::lock_guard lock(tree_.mutex_);
        const std::shared_ptr<node> at = tree_.find(path);
        if (!at) return;
        exists_ = true;
        has_handler_ = at->entry.read_proc || at->entry.write_proc; // and then an owner
        if (!has_handler_) return;
        owner_ = at->entry.owner;
        if (!tree_.home_.modules.enter(owner_)) return;
        at_ = at;
        ++at_->users;
    }

    ~visit()
    {
        if (!at_) return;
        {
            const std::lock_guard lock(tree_.mutex_);
            if (--at_->users == 0 && at_->remover) at_->remover->exec.wake(*at_->remover);
        }
        tree_.home_.modules.leave(owner_);
    }
    visit(const visit&) = delete;
    visit& operator=(const visit&) = delete;

    node* operator->() const { return at_.get(); }
    int error() const { return at_ ? 0 : exists_ && !has_handler_ ? -EK_INVAL : -EK_NOENT; }

  private:
    proc_tree& tree_;
    std::shared_ptr<node> at_;
    const kernel_module_t* owner_ = nullptr;
    bool exists_ = false;
    bool has_handler_ = false;
};

namespace
{

// The bounds of a handler's answer: from `start` on, inside its page.
struct proc_answer {
    const char* start;
    int length;
};

// Holds a handler's answer to its bounds, as kernel/proc.h says.
proc_answer within_bounds(const std::string& path, const std::string& page, proc_answer answer, size_t wanted)
{
    if (answer.length <= 0) return answer;
    const char* end = page.data() + page.size();
    const std::less_equal<const char*> before; // of pointers that may have nothing in common
    if (!before(page.data(), answer.start) || !before(answer.start, end))
        panic("the read handler of /proc/%s answers from outside of its page", path.c_str());
    const size_t room = std::min(static_cast<size_t>(end - answer.start), wanted);
    if (static_cast<size_t>(answer.length) <= room) return answer;
    printk("<4>/proc/%s: its read handler answers with %d bytes where there is room for %zu; the rest is cut off\n",
           path.c_str(), answer.length, room);
    return {answer.start, static_cast<int>(room)};
}

} // namespace

int proc_tree::read(const std::string& path, size_t offset, size_t size, std::string* into)
{
    const visit at(*this, path);
    if (at.error() != 0) return at.error();
    read_proc_t* const handler = at->entry.read_proc;
    if (!handler) return -EK_INVAL;
    std::string page(PROC_PAGE_SIZE, '\0');
    const shown_object shown_page(home_.addresses, page.data(), page.size());
    while (into->size() < size) {
        char* start = page.data();
        int eof = 0;
        const size_t wanted = std::min(size - into->size(), PROC_PAGE_SIZE);
        const int got =
            handler(page.data(), &start, static_cast<off_t>(offset), static_cast<int>(wanted), &eof, at->entry.data);
        const proc_answer answer = within_bounds(path, page, {start, got}, wanted);
        if (answer.length < 0) return answer.length;
        into->append(answer.start, static_cast<size_t>(answer.length));
        offset += static_cast<size_t>(answer.length);
        if (eof != 0 || answer.length == 0) break;
    }
    return static_cast<int>(into->size());
}

int proc_tree::write(const std::string& path, const std::string& bytes)
{
    const visit at(*this, path);
    if (at.error() != 0) return at.error();
    write_proc_t* const handler = at->entry.write_proc;
    if (!handler) return -EK_INVAL;
    if (const int interrupted = down_or_signal(&at->writing); interrupted != 0) return interrupted;
    const int result = handler(nullptr, bytes.data(), bytes.size(), at->entry.data);
    up(&at->writing);
    return result;
}

proc_dir_entry* proc_tree::create(const std::string& path, mode_t mode, bool directory)
{
    const auto [folder, name] = split(path);
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> parent = find(folder);
    if (!parent || !parent->is_directory || name.empty() || parent->children.contains(name)) return nullptr;
    auto made = std::make_shared<node>();
    made->is_directory = directory;
    made->mode = mode != 0 ? mode : default_mode;
    sema_init_named(&made->writing, 1, "a /proc entry's writers");
    parent->children[name] = made;
    return &made->entry;
}

void proc_tree::remove(const std::string& path)
{
    const auto [folder, name] = split(path);
    std::shared_ptr<node> removed;
    {
        const std::lock_guard lock(mutex_);
        const std::shared_ptr<node> parent = find(folder);
        if (!parent || !parent->children.contains(name)) return;
        removed = parent->children[name];
        if (!removed->children.empty()) panic("remove_proc_entry: %s is not empty", path.c_str());
        parent->children.erase(name);
        removed->remover = current_task();
    }
    const auto in_use = [&] {
        const std::lock_guard lock(mutex_);
        return removed->users > 0;
    };
    while (in_use()) current_task()->exec.park(never, "remove_proc_entry", name.c_str());
}

std::string proc_tree::owned_by(const kernel_module_t& owner) const
{
    const std::lock_guard lock(mutex_);
    return path_of_entry(*root_, owner);
}

} // namespace kernel
