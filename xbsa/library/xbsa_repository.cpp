#include "xbsa/library/xbsa_repository.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <iterator>

namespace {

/** Begins as no file of data does: their names have a dot and their copy's id at the end. */
constexpr char TRANSACTIONS[] = "_transactions";
constexpr uint64_t MAX_TRANSACTION_SIZE = 256 * 1024 * 1024;
constexpr int FORMAT = 1;

Xbsa_Result damaged(std::string const& name, std::string const& why) {
    return {BSA_RC_ABORT_SYSTEM_ERROR, "'" + name + "' is damaged: " + why};
}

Storage_Result read_whole(Storage_Connection& connection, std::string const& name,
                          std::string& text) {
    std::unique_ptr<Storage_Reader> reader;
    Storage_Result result = connection.open(name, reader);
    if (!result)
        return result;
    if (reader->entry().size > MAX_TRANSACTION_SIZE)
        return {Storage_Result::FAILED, "'" + name + "' is too large"};
    text.resize(reader->entry().size);
    size_t got = 0;
    return reader->read_at(0, text.data(), text.size(), got);
}

/** The names of a listing, which is in byte order. */
bool is_listed(std::vector<Storage_Entry> const& entries, std::string const& name) {
    auto const found = std::lower_bound(
        entries.begin(), entries.end(), name,
        [](Storage_Entry const& entry, std::string const& wanted) { return entry.name < wanted; });
    return found != entries.end() && found->name == name && !found->is_folder;
}

} // namespace

std::string Xbsa_Repository::data_name(Xbsa_Object const& object) const {
    return set_folder(object.set) + "/" + object.file;
}

std::string Xbsa_Repository::new_transaction_name(std::string const& set) const {
    return set_folder(set) + "/" + TRANSACTIONS + "/" + uuid_string() + ".json";
}

std::string Xbsa_Repository::transaction_text(std::vector<Xbsa_Object> const& objects) {
    json_spirit::Array array;
    for (Xbsa_Object const& object : objects)
        array.emplace_back(object.to_json());
    return json_spirit::to_text(
        json_spirit::Object_Maker()("format", FORMAT)("objects", std::move(array)));
}

Storage_Result Xbsa_Repository::list(std::string const& folder,
                                     std::vector<Storage_Entry>& entries) const {
    Storage_Result const result = connection_->list_names(folder, entries);
    return result.code() == Storage_Result::NOT_FOUND ? Storage_Result() : result;
}

Xbsa_Result Xbsa_Repository::read_transaction(std::string const& set, std::string const& name,
                                              Transaction& transaction) const {
    if (auto const known = remembered_.find(name); known != remembered_.end()) {
        transaction = {name, known->second};
        return {};
    }
    std::string text;
    Storage_Result const result = read_whole(*connection_, name, text);
    if (result.code() == Storage_Result::NOT_FOUND)
        return {}; // its last object was removed meanwhile
    if (!result)
        return result;
    transaction.name = name;
    try {
        json_spirit::Value value;
        std::string fault;
        if (!json_spirit::parse(text, value, &fault))
            return damaged(name, fault);
        int format = 0;
        json_spirit::Array const* objects = nullptr;
        json_spirit::extract_or_throw(std::as_const(value).get_obj())("format", format)("objects",
                                                                                        objects);
        if (format != FORMAT)
            return damaged(name, "its format is of another version");
        for (json_spirit::Value const& object : *objects) {
            transaction.objects.push_back(Xbsa_Object::from_json(object.get_obj()));
            transaction.objects.back().set = set;
        }
    } catch (json_spirit::Error const& error) {
        return damaged(name, error.what());
    }
    remember(transaction);
    return {};
}

void Xbsa_Repository::remember(Transaction const& transaction) const {
    size_t const count = transaction.objects.size();
    if (count > MAX_REMEMBERED)
        return;
    if (remembered_objects_ + count > MAX_REMEMBERED) {
        remembered_.clear();
        remembered_objects_ = 0;
    }
    remembered_.emplace(transaction.name, transaction.objects);
    remembered_objects_ += count;
}

Xbsa_Result Xbsa_Repository::read_set(std::string const& set,
                                      std::vector<Transaction>& transactions) const {
    std::string const folder = set_folder(set) + "/" + TRANSACTIONS;
    std::vector<Storage_Entry> files;
    Xbsa_Result result = list(folder, files);
    for (Storage_Entry const& file : files) {
        if (!result)
            break;
        if (!file.is_folder)
            result = read_transaction(set, folder + "/" + file.name, transactions.emplace_back());
    }
    return result;
}

Xbsa_Result Xbsa_Repository::find_in_set(std::string const& set, Filter const& filter,
                                         Set_Filter const& set_filter,
                                         std::vector<Xbsa_Object>& objects) const {
    std::vector<Transaction> transactions;
    Xbsa_Result read = read_set(set, transactions);
    std::vector<Storage_Entry> data;
    if (read)
        read = list(set_folder(set), data);
    std::vector<Xbsa_Object> found;
    for (Transaction& transaction : transactions)
        std::copy_if(std::make_move_iterator(transaction.objects.begin()),
                     std::make_move_iterator(transaction.objects.end()), std::back_inserter(found),
                     [&](Xbsa_Object const& object) {
                         return filter(object) && is_listed(data, object.file);
                     });
    if (read && found.empty())
        return {};
    bool counts = false;
    Xbsa_Result const asked = set_filter(set, counts);
    if (!asked || !counts)
        return asked;
    // what is damaged in a set that nobody wants any more stops nobody
    if (read)
        std::move(found.begin(), found.end(), std::back_inserter(objects));
    return read;
}

Xbsa_Result Xbsa_Repository::choose_sets(Xbsa_Hint const& hint, std::vector<std::string>& sets) {
    std::vector<Storage_Entry> folders;
    Storage_Result const listed = connection_->list(root_, folders);
    if (!listed)
        return listed.code() == Storage_Result::NOT_FOUND ? Xbsa_Result() : Xbsa_Result(listed);
    if (hint.empty()) {
        for (Storage_Entry const& folder : folders)
            if (folder.is_folder)
                sets.push_back(folder.name);
        return {};
    }
    auto const lister = [this](std::string const& set, std::vector<Storage_Entry>& files) {
        return Xbsa_Result(list(set_folder(set), files));
    };
    Xbsa_Result const result =
        index_.update(folders, lister, time(nullptr), Xbsa_Index::Clock::now());
    if (result)
        sets = index_.find(hint);
    return result;
}

Xbsa_Result Xbsa_Repository::find(Xbsa_Hint const& hint, Filter const& filter,
                                  Set_Filter const& set_filter, std::vector<Xbsa_Object>& objects) {
    std::vector<std::string> sets;
    Xbsa_Result result = choose_sets(hint, sets);
    for (std::string const& set : sets) {
        if (!result)
            break;
        result = find_in_set(set, filter, set_filter, objects);
    }
    return result;
}

Xbsa_Result Xbsa_Repository::remove(Xbsa_Object const& object) const {
    Storage_Result const removed = connection_->remove(data_name(object));
    if (!removed && removed.code() != Storage_Result::NOT_FOUND)
        return removed;
    std::vector<Transaction> transactions;
    std::vector<Storage_Entry> data;
    Xbsa_Result result = read_set(object.set, transactions);
    if (result)
        result = list(set_folder(object.set), data);
    if (!result)
        return result;
    for (Transaction const& transaction : transactions) {
        bool const names_it =
            std::any_of(transaction.objects.begin(), transaction.objects.end(),
                        [&](Xbsa_Object const& other) { return other.copy_id == object.copy_id; });
        bool const has_others =
            std::any_of(transaction.objects.begin(), transaction.objects.end(),
                        [&](Xbsa_Object const& other) { return is_listed(data, other.file); });
        if (names_it && !has_others)
            return connection_->remove(transaction.name);
    }
    return {};
}
