#include "host/storage/storage_backend.h"
#include "json_spirit/text.h"
#include "qmrt/names.h"
#include "xbsa/library/xbsa_policy.h"
#include "xbsa/library/xbsa_repository.h"

#include <cstdlib>
#include <cstring>

namespace {

/** A pool with one transaction in it. */
class One_Transaction : public Storage_Connection {
public:
    explicit One_Transaction(std::string text) : text_(std::move(text)) {}

    Storage_Result create(std::string const&, bool, std::unique_ptr<Storage_Writer>&) override {
        return none();
    }
    Storage_Result open(std::string const& name, std::unique_ptr<Storage_Reader>& reader) override {
        if (!name.ends_with(".json"))
            return none();
        reader = std::make_unique<Reader>(text_);
        return {};
    }
    Storage_Result stat(std::string const&, Storage_Entry&) override { return none(); }
    Storage_Result remove(std::string const& name) override {
        if (!check_object_name(name) || !name.starts_with("c/xbsa/set/"))
            std::abort(); // it would remove what is not the set's
        return {};
    }
    Storage_Result rename(std::string const&, std::string const&) override { return none(); }
    Storage_Result list(std::string const& folder, std::vector<Storage_Entry>& entries) override {
        if (folder.ends_with("_transactions"))
            entries = {{"t.json", text_.size(), 0, false}};
        else if (folder.ends_with("/set"))
            entries = {{"_transactions", 0, 0, true}, {"d.1", 1, 0, false}};
        else
            entries = {{"set", 0, 0, true}};
        return {};
    }
    Storage_Result space(uint64_t&, uint64_t&) override { return none(); }

private:
    class Reader : public Storage_Reader {
    public:
        explicit Reader(std::string const& text) : text_(text) { entry_.size = text.size(); }
        Storage_Entry const& entry() const override { return entry_; }
        Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) override {
            got = offset < text_.size() ? std::min<size_t>(size, text_.size() - offset) : 0;
            if (got > 0)
                std::memcpy(buffer, text_.data() + offset, got);
            return {};
        }

    private:
        std::string const& text_;
        Storage_Entry entry_;
    };
    static Storage_Result none() { return {Storage_Result::NOT_FOUND, "none"}; }

    std::string const text_;
};

/** Whatever a transaction says, its objects lie in its set's folder. */
void read_transaction(std::string const& text) {
    auto const pool = std::make_shared<One_Transaction>(text);
    Xbsa_Repository repository(pool, "c");
    std::vector<Xbsa_Object> objects;
    (void)repository.find(
        {}, [](Xbsa_Object const&) { return true; },
        [](std::string const&, bool& counts) {
            counts = true;
            return Xbsa_Result();
        },
        objects);
    for (Xbsa_Object const& object : objects) {
        BSA_ObjectDescriptor descriptor;
        object.write(descriptor, true);
        (void)repository.remove(object);
    }
}

/** A second reading of what is written of an object gives the same. */
void read_object(std::string const& text) {
    json_spirit::Value value;
    if (!json_spirit::parse(text, value, nullptr) || value.type() != json_spirit::obj_type)
        return;
    try {
        Xbsa_Object const object = Xbsa_Object::from_json(value.get_obj());
        if (!(Xbsa_Object::from_json(object.to_json()).to_json() == object.to_json()))
            std::abort();
    } catch (json_spirit::Error const&) {
        // no object
    }
}

void read_policy(std::string const& text) {
    Xbsa_Policy policy;
    if (Xbsa_Policy::parse("p", text, policy) &&
        (!names::fault_of_id(policy.cluster_id).empty() || policy.backupd_port == 0))
        std::abort();
}

} // namespace

/** The files of the XBSA library's: a transaction, an object in it, and a policy. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    read_transaction(text);
    read_object(text);
    read_policy(text);
    return 0;
}
