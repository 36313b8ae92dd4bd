// IBAT's cache of paths. It has at most one path to a destination GID. Paths expire. A full cache drops its oldest
// path. The owner of the cache guards every call with a lock, except open() and close(). Only open() may sleep.
#pragma once

#include "host/peers/hash-index.h"
#include "ibat.h"
#include "kernel/list.h"
#include "kernel/time.h"

namespace ibat
{

struct cached_path {
    list_head link;
    cached_path* next_by_gid;
    kq_gid_t gid;
    ib_path_record_v2_t path;
    uint32_t port_number; // the port on which the path begins
    unsigned long answered_tick;
};

class path_cache
{
  public:
    // Returns false if there is no memory; nothing stays allocated then.
    bool open(int32_t capacity, unsigned long lifetime_ticks)
    {
        list_init(&paths_);
        count_ = 0;
        capacity_ = capacity;
        lifetime_ticks_ = lifetime_ticks;
        return paths_by_gid_.open(static_cast<size_t>(capacity));
    }

    void close()
    {
        clear();
        paths_by_gid_.close();
    }

    // Returns the path to a GID, or null if there is no path or it has expired.
    const cached_path* find(const kq_gid_t& gid) const
    {
        const cached_path* path = paths_by_gid_.find(gid);
        return path && jiffies - path->answered_tick < lifetime_ticks_ ? path : nullptr;
    }

    // Stores a path. Drops an earlier path to the same GID. If the cache is full or there is no memory, also drops the
    // oldest path and uses its memory. If there is no memory and no other path, stores nothing.
    void store(const kq_gid_t& gid, const ib_path_record_v2_t& path, uint32_t port_number)
    {
        forget(gid);
        cached_path* entry = allocate();
        if (!entry) return;
        entry->gid = gid;
        entry->path = path;
        entry->port_number = port_number;
        entry->answered_tick = jiffies;
        list_add_tail(&entry->link, &paths_);
        paths_by_gid_.insert(entry);
        ++count_;
    }

    // forget() drops the path to a GID, clear() drops all paths. They return the number of dropped paths.
    int32_t forget(const kq_gid_t& gid)
    {
        cached_path* path = paths_by_gid_.find(gid);
        if (!path) return 0;
        unlink(path);
        kfree(path);
        return 1;
    }
    int32_t clear()
    {
        const int32_t count = count_;
        while (!list_empty(&paths_)) forget(oldest()->gid);
        return count;
    }

    int32_t count() const { return count_; }

  private:
    cached_path* oldest() const { return list_entry(paths_.next, cached_path, link); }

    void unlink(cached_path* path)
    {
        list_del_init(&path->link);
        paths_by_gid_.remove(path);
        --count_;
    }

    // Allocates an entry. If the cache is full or there is no memory, unlinks the oldest path and returns it for reuse.
    // Returns null if there is no such path.
    cached_path* allocate()
    {
        if (count_ < capacity_)
            if (void* memory = kmalloc(sizeof(cached_path), GFP_ATOMIC)) return static_cast<cached_path*>(memory);
        if (list_empty(&paths_)) return nullptr;
        cached_path* path = oldest();
        unlink(path);
        return path;
    }

    hash_index<cached_path, kq_gid_t, &cached_path::gid, &cached_path::next_by_gid> paths_by_gid_;
    list_head paths_; // oldest first
    int32_t count_;
    int32_t capacity_;
    unsigned long lifetime_ticks_;
};

} // namespace ibat
