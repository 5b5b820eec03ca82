#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestro/core/data_directory.h"
#include "kestro/core/export.h"
#include "kestro/inspector/clipboard.h"
#include "kestro/inspector/item_details.h"
#include "kestro/inspector/toast_manager.h"
#include "kestro/store/request_store_sqlite.h"

namespace kestro {

/// The searchable index of a list of captured items: each item's searched texts, folded for
/// case-insensitive matching once when the item arrives, in one buffer. A search then costs
/// one folding of the search text and a byte-wise substring test per item.
///
/// The searched text is the log's message, the event's name, or the request's URL and, when
/// that does not match, its method (both empty when the request half is absent).
class KESTRO_API SearchIndex {
  public:
    /// Rebuilds the index for a whole list.
    void reset(const RequestList& list);
    /// Applies a change of the store's list. Cheap for an insertion at the front and for the
    /// removal of recent items; anything it cannot follow rebuilds.
    void apply(const RequestsChange& change);

    const RequestList& list() const { return list_; }
    std::size_t size() const { return entries_.size(); }

    /// Newest-first indexes into list() of the items whose searched text contains needle.
    /// An empty needle matches every item.
    void search(std::string_view needle, std::vector<std::uint32_t>& out) const;

    /// Bytes held beyond the list itself (folded texts and entries).
    std::size_t memoryBytes() const;

  private:
    struct Entry {
        const RequestEventType* item;  // owned by list_
        std::size_t text;              // offset of the folded texts in folded_
        std::uint32_t primary;         // byte length of the first searched text
        std::uint32_t secondary;       // the method's length (network items), else 0
    };
    void append(const RequestEventType& item);
    bool matches(const RequestList& list) const;
    void compact();

    RequestList list_;
    std::vector<Entry> entries_;  // oldest first, as the list keeps its items
    std::string folded_;
    std::size_t garbage_ = 0;  // bytes of folded_ no entry refers to any more
};

/// The requests list screen: the store's items newest first, filtered by the search field,
/// one row per item, deletion, and the details of the selected item.
///
/// It follows the store through a main-queue subscription, so its rows change only between
/// frames, on the host's UI thread; the first rows are there as soon as it is made. Every
/// member runs on the main queue.
class KESTRO_API RequestsListModel {
  public:
    explicit RequestsListModel(RequestStoreSQLite& store = RequestStoreSQLite::shared(),
                               Clipboard& clipboard = Clipboard::general(),
                               ToastManager& toasts = ToastManager::shared());
    ~RequestsListModel();
    RequestsListModel(const RequestsListModel&) = delete;
    RequestsListModel& operator=(const RequestsListModel&) = delete;

    const std::string& searchText() const { return searchText_; }
    /// The search text as typed (not trimmed). Filters at once.
    void setSearchText(std::string text);

    /// Rows shown: the filtered items, newest first.
    std::size_t rowCount() const;
    const RequestEventType& item(std::size_t row) const;
    /// Copies of the rows (what the list shows).
    std::vector<RequestEventType> filtered() const;
    /// The store's item count (all items, whatever the search).
    std::size_t totalCount() const { return index_.size(); }

    using ExportDone = std::function<void(std::optional<std::filesystem::path>)>;
    /// "Export HAR": the exchanges among the rows shown (oldest first, as a HAR's entries run)
    /// written as a new HAR file in directory. The file is made on a worker of the global
    /// executor, from the list's snapshot (thousands of exchanges take too long for a frame);
    /// then, on the main queue, a toast gives the file's path or says it could not be written
    /// (unless the list is gone by then), and done (if any) gets the path. With no exchange in
    /// view the toast says so at once.
    /// One export at a time: a call while one is under way does nothing.
    void exportHAR(const std::filesystem::path& directory = dataDirectory(), ExportDone done = {});
    bool isExporting() const { return exporting_; }

    /// Deletes the item with this id from the store; its row goes once the store says so.
    void deleteItem(const std::string& id);

    /// Opens the details of a row's item.
    void select(std::size_t row);
    void select(const RequestEventType& item);
    /// Closes the details.
    void dismissDetails();
    /// The open details, if any.
    ItemDetailsModel* details() { return details_.get(); }
    /// Whether the selected item is still in the store.
    bool selectedItemIsListed() const { return selectedListed_; }

    /// Grows with every change of the rows (store changes and searches), for the drawing's
    /// caches.
    std::uint64_t revision() const { return revision_; }
    const SearchIndex& index() const { return index_; }

  private:
    void onChange(const RequestsChange& change);
    void refilter();
    void updateRows() const;

    RequestStoreSQLite& store_;
    Clipboard& clipboard_;
    ToastManager& toasts_;
    SearchIndex index_;
    std::string searchText_;
    bool filtering_ = false;
    mutable std::vector<std::uint32_t> rows_;  // when filtering: indexes into index_.list()
    mutable bool rowsStale_ = false;
    std::unique_ptr<ItemDetailsModel> details_;
    bool selectedListed_ = false;
    std::uint64_t revision_ = 0;
    bool exporting_ = false;
    RequestsSubscription subscription_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();  // held weakly by queued work
};

}  // namespace kestro
