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
    int users = 0;               // number of `visit` objects
    task* remove_task = nullptr; // the task that removes the entry; it waits until `users` is 0
    semaphore write_semaphore;   // held while the write handler runs
    std::map<std::string, std::shared_ptr<node>> children;
};

namespace
{

constexpr mode_t default_mode = 0444;

// Splits "a/b/c" into its folder "a/b" and its name "c".
std::pair<std::string, std::string> split(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

} // namespace

proc_tree::proc_tree(machine& machine) : machine_(machine), root_(std::make_shared<node>())
{
    root_->is_directory = true;
}

proc_tree::~proc_tree() = default;

std::shared_ptr<proc_tree::node> proc_tree::find(const std::string& path) const
{
    std::shared_ptr<node> entry = root_;
    size_t begin = 0;
    while (begin < path.size()) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const auto child = entry->children.find(path.substr(begin, end - begin));
        if (child == entry->children.end()) return nullptr;
        entry = child->second;
        begin = end + 1;
    }
    return entry;
}

std::string proc_tree::find_path(const node& directory, const kernel_module_t& owner)
{
    for (const auto& [name, child] : directory.children) {
        if (child->entry.owner == &owner) return name;
        const std::string path = find_path(*child, owner);
        if (!path.empty()) return name + "/" + path;
    }
    return "";
}

int proc_tree::list(const std::string& path, std::vector<proc_listing>* entries) const
{
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> directory = find(path);
    if (!directory) return -EK_NOENT;
    if (!directory->is_directory) return -EK_INVAL;
    for (const auto& [name, child] : directory->children) entries->push_back({name, child->is_directory, child->mode});
    return 0;
}

int proc_tree::stat(const std::string& path, proc_listing* entry) const
{
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> target = find(path);
    if (!target) return -EK_NOENT;
    *entry = {split(path).second, target->is_directory, target->mode};
    return 0;
}

// A visit of a task to an entry. As long as a visit without an error exists, remove() waits and the owner of the entry
// is not unloaded. Therefore the task can run a handler.
class proc_tree::visit
{
  public:
    visit(proc_tree& tree, const std::string& path) : tree_(tree)
    {
        const std::lock_guard lock(tree_.mutex_);
        const std::shared_ptr<node> target = tree_.find(path);
        if (!target) return;
        if (!target->entry.read_proc && !target->entry.write_proc) { // modules set the owner before a handler
            error_ = -EK_INVAL;
            return;
        }
        owner_ = target->entry.owner;
        if (!tree_.machine_.modules.enter(owner_)) return;
        node_ = target;
        ++node_->users;
        error_ = 0;
    }

    ~visit()
    {
        if (!node_) return;
        {
            const std::lock_guard lock(tree_.mutex_);
            --node_->users;
            if (node_->users == 0 && node_->remove_task) node_->remove_task->exec.wake(*node_->remove_task);
        }
        tree_.machine_.modules.leave(owner_);
    }
    visit(const visit&) = delete;
    visit& operator=(const visit&) = delete;

    // Returns 0, or a negative error number if the entry cannot be used.
    int error() const { return error_; }
    node* operator->() const { return node_.get(); }

  private:
    proc_tree& tree_;
    std::shared_ptr<node> node_;
    const kernel_module_t* owner_ = nullptr;
    int error_ = -EK_NOENT;
};

namespace
{

// The answer of a read handler: `length` bytes at `start`. If `length` is negative, it is an error number.
struct proc_answer {
    const char* start;
    int length;
};

// Cuts an answer to `size` bytes and to the end of the page, and logs the cut. Panics if the answer starts outside of
// the page.
proc_answer within_bounds(const std::string& path, const std::string& page, proc_answer answer, size_t size)
{
    if (answer.length <= 0) return answer;
    const char* end = page.data() + page.size();
    const std::less_equal<const char*> is_ordered; // also compares pointers into different objects
    if (!is_ordered(page.data(), answer.start) || !is_ordered(answer.start, end))
        panic("the read handler of /proc/%s answers from outside of its page", path.c_str());
    const size_t room = std::min(static_cast<size_t>(end - answer.start), size);
    if (static_cast<size_t>(answer.length) <= room) return answer;
    printk("<4>/proc/%s: its read handler answers with %d bytes where there is room for %zu; the rest is cut off\n",
           path.c_str(), answer.length, room);
    return {answer.start, static_cast<int>(room)};
}

} // namespace

int proc_tree::read(const std::string& path, size_t offset, size_t size, std::string* text)
{
    const visit visit(*this, path);
    if (visit.error() != 0) return visit.error();
    read_proc_t* const handler = visit->entry.read_proc;
    if (!handler) return -EK_INVAL;
    std::string page(PROC_PAGE_SIZE, '\0');
    const shown_object shown_page(machine_.addresses, page.data(), page.size());
    while (text->size() < size) {
        char* start = page.data();
        int eof = 0;
        const size_t count = std::min(size - text->size(), PROC_PAGE_SIZE);
        const int length =
            handler(page.data(), &start, static_cast<off_t>(offset), static_cast<int>(count), &eof, visit->entry.data);
        const proc_answer answer = within_bounds(path, page, {start, length}, count);
        if (answer.length < 0) return answer.length;
        text->append(answer.start, static_cast<size_t>(answer.length));
        offset += static_cast<size_t>(answer.length);
        if (eof != 0 || answer.length == 0) break;
    }
    return static_cast<int>(text->size());
}

int proc_tree::write(const std::string& path, const std::string& bytes)
{
    const visit visit(*this, path);
    if (visit.error() != 0) return visit.error();
    write_proc_t* const handler = visit->entry.write_proc;
    if (!handler) return -EK_INVAL;
    if (const int error = down_or_signal(&visit->write_semaphore); error != 0) return error;
    const int result = handler(nullptr, bytes.data(), bytes.size(), visit->entry.data);
    up(&visit->write_semaphore);
    return result;
}

proc_dir_entry* proc_tree::create(const std::string& path, mode_t mode, bool is_directory)
{
    const auto [folder, name] = split(path);
    const std::lock_guard lock(mutex_);
    const std::shared_ptr<node> parent = find(folder);
    if (!parent || !parent->is_directory || name.empty() || parent->children.contains(name)) return nullptr;
    auto child = std::make_shared<node>();
    child->is_directory = is_directory;
    child->mode = mode != 0 ? mode : default_mode;
    sema_init_named(&child->write_semaphore, 1, "a /proc entry's writers");
    parent->children[name] = child;
    return &child->entry;
}

void proc_tree::remove(const std::string& path)
{
    const auto [folder, name] = split(path);
    std::shared_ptr<node> target;
    {
        const std::lock_guard lock(mutex_);
        const std::shared_ptr<node> parent = find(folder);
        if (!parent || !parent->children.contains(name)) return;
        target = parent->children[name];
        if (!target->children.empty()) panic("remove_proc_entry: %s is not empty", path.c_str());
        parent->children.erase(name);
        target->remove_task = current_task();
    }
    const auto is_in_use = [&] {
        const std::lock_guard lock(mutex_);
        return target->users > 0;
    };
    while (is_in_use()) current_task()->exec.park(never, "remove_proc_entry", name.c_str());
}

std::string proc_tree::path_owned_by(const kernel_module_t& owner) const
{
    const std::lock_guard lock(mutex_);
    return find_path(*root_, owner);
}

} // namespace kernel
