#include "kestro/inspector/requests_list.h"

#include <algorithm>

#include "kestro/core/executor.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/text_search.h"
#include "kestro/export/har.h"

namespace kestro {

// --- SearchIndex -----------------------------------------------------------------------------

void SearchIndex::reset(const RequestList& list) {
    list_ = list;
    entries_.clear();
    folded_.clear();
    garbage_ = 0;
    entries_.reserve(list.size());
    // Physical order, oldest first, so that a newer item is an append.
    for (std::size_t i = list.size(); i-- > 0;) append(list[i]);
}

void SearchIndex::append(const RequestEventType& item) {
    std::string_view primary;
    std::string_view secondary;
    if (const auto* r = item.asNetworkRequest()) {
        if (r->details.request) {
            primary = r->details.request->url;
            secondary = r->details.request->method;
        }
    } else if (const auto* log = item.asLog()) {
        primary = log->details.message;
    } else if (const auto* event = item.asCustomEvent()) {
        primary = event->details.name;
    }
    Entry e{&item, folded_.size(), 0, 0};
    appendFoldedForSearch(primary, folded_);
    e.primary = static_cast<std::uint32_t>(folded_.size() - e.text);
    appendFoldedForSearch(secondary, folded_);
    e.secondary = static_cast<std::uint32_t>(folded_.size() - e.text - e.primary);
    entries_.push_back(e);
}

bool SearchIndex::matches(const RequestList& list) const {
    if (list.size() != entries_.size()) return false;
    if (list.empty()) return true;
    return &list.front() == entries_.back().item && &list[list.size() - 1] == entries_.front().item;
}

void SearchIndex::apply(const RequestsChange& change) {
    const RequestList& next = change.requests;
    if (matches(next)) {  // already followed (the first delivery after reset(), for one)
        list_ = next;
        return;
    }
    switch (change.kind) {
        case RequestsChange::Kind::inserted:
            if (next.size() == entries_.size() + 1 &&
                (entries_.empty() || &next[1] == entries_.back().item)) {
                list_ = next;
                append(next.front());
                return;
            }
            break;
        case RequestsChange::Kind::removed: {
            // The store keeps the remaining items as they were, so removing their entries
            // keeps the rest valid. A replaced network record is usually among the newest:
            // scan from the end.
            std::size_t removed = 0;
            for (std::size_t i = entries_.size(); i-- > 0;) {
                if (entries_[i].item->id() == change.id) {
                    garbage_ += entries_[i].primary + entries_[i].secondary;
                    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
                    ++removed;
                }
            }
            if (removed > 0 && matches(next)) {
                list_ = next;
                if (garbage_ > folded_.size() / 2 && garbage_ > (1u << 20)) compact();
                return;
            }
            break;
        }
        case RequestsChange::Kind::initial:
        case RequestsChange::Kind::replaced:
            break;
    }
    reset(next);
}

void SearchIndex::compact() { reset(list_); }

void SearchIndex::search(std::string_view needle, std::vector<std::uint32_t>& out) const {
    out.clear();
    const std::string folded = foldForSearch(needle);
    const std::string_view n = folded;
    const char* base = folded_.data();
    const std::size_t count = entries_.size();
    for (std::size_t k = count; k-- > 0;) {
        const Entry& e = entries_[k];
        const std::string_view primary(base + e.text, e.primary);
        const std::string_view secondary(base + e.text + e.primary, e.secondary);
        if (primary.find(n) != std::string_view::npos ||
            secondary.find(n) != std::string_view::npos) {
            out.push_back(static_cast<std::uint32_t>(count - 1 - k));
        }
    }
}

std::size_t SearchIndex::memoryBytes() const {
    return folded_.capacity() + entries_.capacity() * sizeof(Entry);
}

// --- RequestsListModel -----------------------------------------------------------------------

RequestsListModel::RequestsListModel(RequestStoreSQLite& store, Clipboard& clipboard,
                                     ToastManager& toasts)
    : store_(store), clipboard_(clipboard), toasts_(toasts) {
    // Rows from the current list at once; the subscription's first delivery then finds the
    // index up to date, and later ones move it along.
    index_.reset(store_.requests());
    subscription_ =
        store_.observeRequests([this](const RequestsChange& change) { onChange(change); },
                               RequestStoreSQLite::Delivery::mainQueue);
}

RequestsListModel::~RequestsListModel() { subscription_.reset(); }

void RequestsListModel::onChange(const RequestsChange& change) {
    index_.apply(change);
    if (details_) {
        const std::string& id = details_->item().id();
        if (change.kind == RequestsChange::Kind::removed && change.id == id) {
            selectedListed_ = false;
        } else if (change.kind != RequestsChange::Kind::removed &&
                   (change.kind != RequestsChange::Kind::inserted || change.id == id)) {
            selectedListed_ = change.requests.indexOf(id).has_value();
        }
    }
    refilter();
}

void RequestsListModel::setSearchText(std::string text) {
    if (text == searchText_) return;
    searchText_ = std::move(text);
    refilter();
}

void RequestsListModel::refilter() {
    ++revision_;
    filtering_ = !searchText_.empty();
    rowsStale_ = filtering_;
    if (!filtering_) rows_.clear();
}

void RequestsListModel::updateRows() const {
    // Searching waits for the rows to be read, so that a burst of store changes between two
    // frames costs one search.
    if (!rowsStale_) return;
    index_.search(searchText_, rows_);
    rowsStale_ = false;
}

std::size_t RequestsListModel::rowCount() const {
    updateRows();
    return filtering_ ? rows_.size() : index_.list().size();
}

const RequestEventType& RequestsListModel::item(std::size_t row) const {
    updateRows();
    return index_.list()[filtering_ ? rows_[row] : row];
}

std::vector<RequestEventType> RequestsListModel::filtered() const {
    std::vector<RequestEventType> out;
    out.reserve(rowCount());
    for (std::size_t row = 0; row < rowCount(); ++row) out.push_back(item(row));
    return out;
}

void RequestsListModel::exportHAR(const std::filesystem::path& directory, ExportDone done) {
    if (exporting_) return;
    // Indexes into the snapshot, oldest first; the worker copies the exchanges out of it.
    const RequestList snapshot = index_.list();
    std::vector<std::uint32_t> picked;
    updateRows();
    for (std::size_t row = rowCount(); row-- > 0;) {
        const std::uint32_t at = filtering_ ? rows_[row] : static_cast<std::uint32_t>(row);
        if (snapshot[at].asNetworkRequest()) picked.push_back(at);
    }
    if (picked.empty()) {
        toasts_.show("No exchanges in the list to export");
        if (done) done(std::nullopt);
        return;
    }
    exporting_ = true;
    postTask([this, alive = std::weak_ptr<char>(alive_), snapshot, picked = std::move(picked),
              directory, done = std::move(done)]() mutable {
        std::vector<RequestTypeRequest> exchanges;
        exchanges.reserve(picked.size());
        for (const std::uint32_t at : picked) exchanges.push_back(*snapshot[at].asNetworkRequest());
        auto path = writeHARFile(exchanges, directory);
        MainQueue::shared().post([this, alive, path = std::move(path), done = std::move(done)] {
            if (!alive.expired()) {
                exporting_ = false;
                toasts_.show(path ? "HAR saved to " + path->string()
                                  : std::string("The HAR file could not be written"));
            }
            if (done) done(path);
        });
    });
}

void RequestsListModel::deleteItem(const std::string& id) { store_.deleteById(id); }

void RequestsListModel::select(std::size_t row) {
    if (row < rowCount()) select(item(row));
}

void RequestsListModel::select(const RequestEventType& item) {
    details_ = std::make_unique<ItemDetailsModel>(item, clipboard_, toasts_);
    selectedListed_ = true;
}

void RequestsListModel::dismissDetails() { details_.reset(); }

}  // namespace kestro
