#include "xbsa/library/xbsa_transaction.h"

#include "json_spirit/access.h"

#include <utility>

Xbsa_Transaction::~Xbsa_Transaction() {
    roll_back();
}

void Xbsa_Transaction::roll_back() {
    for (auto const& upload : std::exchange(uploads_, {}))
        if (upload->committed())
            (void)repository_.connection().remove(repository_.data_name(upload->object()));
}

Xbsa_Result Xbsa_Transaction::add(std::unique_ptr<Xbsa_Upload> upload) {
    bool const keep_open = uploads_.size() < MAX_OPEN;
    uploads_.push_back(std::move(upload));
    return keep_open ? Xbsa_Result() : uploads_.back()->commit();
}

Xbsa_Result Xbsa_Transaction::commit() {
    Xbsa_Result result;
    if (failed_)
        result = {BSA_RC_TRANSACTION_ABORTED, "a call of the transaction has failed"};
    else if (!uploads_.empty())
        result = commit_objects();
    if (!result) {
        roll_back();
        return {BSA_RC_TRANSACTION_ABORTED, result.text()};
    }
    for (auto const& upload : std::exchange(uploads_, {}))
        counter_.add_object(upload->object().size, upload->object().stored_size);
    for (Xbsa_Object const& object : removals_) {
        result = repository_.remove(object);
        if (!result)
            return result;
    }
    return {};
}

Xbsa_Result Xbsa_Transaction::commit_objects() {
    std::vector<Xbsa_Object> objects;
    for (auto const& upload : uploads_) {
        Xbsa_Result const result = upload->commit();
        if (!result)
            return result;
        objects.push_back(upload->object());
    }
    // written, but not in its place: what the catalog refuses never was an object
    std::string const name = repository_.new_transaction_name(objects.front().set);
    std::string const text = Xbsa_Repository::transaction_text(objects);
    std::unique_ptr<Storage_Writer> writer;
    Storage_Result written = repository_.connection().create(name, false, writer);
    if (written)
        written = writer->write(text.data(), text.size());
    if (!written)
        return written;
    Xbsa_Result const added = add_to_catalog(name, text.size());
    if (!added)
        return added;
    written = writer->commit();
    if (!written)
        (void)repository_.connection().remove(name);
    return written;
}

Xbsa_Result Xbsa_Transaction::add_to_catalog(std::string const& name, size_t size) {
    json_spirit::Array pieces;
    auto const add = [&](std::string const& path, uint64_t content, uint64_t stored) {
        pieces.emplace_back(
            json_spirit::Object_Maker()("path", path)("size", content)("storage_size", stored));
    };
    for (auto const& upload : uploads_)
        add(repository_.data_name(upload->object()), upload->object().size,
            upload->object().stored_size);
    add(name, size, size);
    return agent_.add_pieces(std::move(pieces));
}
