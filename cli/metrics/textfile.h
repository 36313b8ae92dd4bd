// Writes the file that node_exporter's textfile collector reads.
#pragma once

#include <string>

#include "client/descriptor.h"
#include "host/result.h"

namespace metrics
{

// Only one thread may use this object. Readers never see a partial file. A lock on FOLDER/.ats.prom.lock prevents a
// second service from writing the same file.
class textfile
{
  public:
    explicit textfile(std::string folder) : folder_(std::move(folder)) {}

    // Removes the file, because old values would look like current ones. Keeps the file if this object has never got
    // the lock.
    ~textfile();
    textfile(const textfile&) = delete;
    textfile& operator=(const textfile&) = delete;

    // Replaces the file. Takes the lock first, unless this object already has it. On failure, the previous file stays,
    // and the error says what has failed.
    ats::result<> write(const std::string& text);

  private:
    std::string path() const { return folder_ + "/ats.prom"; }
    std::string draft() const { return folder_ + "/.ats.prom.new"; }
    std::string lock_path() const { return folder_ + "/.ats.prom.lock"; }
    ats::result<> lock();

    const std::string folder_;
    client::descriptor lock_;
};

} // namespace metrics
