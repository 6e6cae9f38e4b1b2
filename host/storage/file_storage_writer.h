#ifndef HOST_STORAGE_FILE_STORAGE_WRITER_H
#define HOST_STORAGE_FILE_STORAGE_WRITER_H

#include "host/storage/file_pool_folder.h"

/** Reads an object that is open as a file. */
class File_Storage_Reader : public Storage_Reader {
public:
    File_Storage_Reader(File_Descriptor file, Storage_Entry entry)
        : file_(std::move(file)), entry_(std::move(entry)) {}

    Storage_Entry const& entry() const override { return entry_; }
    Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) override;

private:
    File_Descriptor const file_;
    Storage_Entry const entry_;
};

/** An object on its way into a pool folder; see File_Storage_Backend. */
class File_Storage_Writer : public Storage_Writer {
public:
    struct Mode {
        bool replace = true;
        bool keep_in_memory = true; ///< false: leave no page of it in the machine's memory
    };

    /** @param parts  of the object's name from the pool's folder on */
    static Storage_Result open(std::shared_ptr<File_Pool_Folder const> pool,
                               File_Pool_Folder::Parts parts, Mode mode,
                               std::unique_ptr<Storage_Writer>& writer);
    ~File_Storage_Writer() override { abort(); }

    Storage_Result write(void const* data, size_t size) override;
    Storage_Result commit() override;
    void abort() override;
    Storage_Result reread(std::unique_ptr<Storage_Reader>& reader) override;

private:
    File_Storage_Writer(std::shared_ptr<File_Pool_Folder const> pool, File_Pool_Folder::Parts parts,
                        Mode mode)
        : pool_(std::move(pool)), parts_(std::move(parts)), mode_(mode) {}

    std::string const& leaf() const { return parts_.back(); }
    Storage_Result open_temporary();
    /** Renames the temporary file to its place. 0, or -1 with errno. */
    int put_in_place() const;
    /** Has the system begin to write out what has come since the last call. */
    void start_writing_out();
    Storage_Result failed(char const* what, int error) const;

    std::shared_ptr<File_Pool_Folder const> const pool_;
    File_Pool_Folder::Parts const parts_;
    Mode const mode_;
    File_Descriptor folder_;
    File_Descriptor file_;
    std::string temporary_; ///< "" when there is none (any more)
    uint64_t size_ = 0;
    uint64_t writing_out_ = 0; ///< up to here the system has been told to write out
};

/** Success when an object may be put in a place: where nothing is, or an object to be replaced. */
Storage_Result check_object_place(File_Descriptor const& folder, std::string const& leaf,
                                  bool replace);

/** A day: who shares a pool with machines whose locks do not reach us leaves their files alone. */
constexpr time_t UNFINISHED_AGE = 24 * 60 * 60;

/**
 * Removes what killed processes have left unfinished in a folder.
 * @param age   seconds since its last change, at least
 * @param left  grows by the unfinished files that stay; null when nobody asks
 * @return how many files went
 */
size_t sweep_unfinished(File_Descriptor const& folder, time_t age = UNFINISHED_AGE,
                        size_t* left = nullptr);

#endif
