#ifndef AGENT_SERVICE_DATA_DIRECTORY_H
#define AGENT_SERVICE_DATA_DIRECTORY_H

#include <memory>
#include <string>

/**
 * The directory in which an agent keeps all that outlives it, as this process's own while it holds
 * this object: a second agent is refused.
 */
class Data_Directory {
public:
    /**
     * Makes the directory, mode 0700, when it is not there, and locks it. The lock goes with the
     * process, however that ends.
     * @param error  when null is returned: which directory, why, and what to do
     */
    static std::unique_ptr<Data_Directory> take(std::string const& path, std::string& error);

    std::string const& path() const { return path_; }
    ~Data_Directory();
    Data_Directory(Data_Directory const&) = delete;
    Data_Directory& operator=(Data_Directory const&) = delete;

    /** The path of a file in it. */
    std::string file(std::string const& name) const { return path_ + "/" + name; }

private:
    Data_Directory(std::string path, int lock) : path_(std::move(path)), lock_(lock) {}

    std::string const path_;
    int const lock_; ///< the open and locked file
};

#endif
