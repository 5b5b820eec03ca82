#include "kestro/jsonview/table_writer.h"

#include "kestro/jsonview/attribute_table.h"

namespace kestro::jsonview::internal {

AttributedText textWithAttributeTable(std::initializer_list<AttributesRef> sets) {
    AttributedText text;
    for (const AttributesRef& set : sets) {
        if (!set) continue;
        text.ownTable();
        if (text.table_->find(set.get()) != AttributedText::AttributeTable::kNotFound) continue;
        std::uint32_t index;
        text.table_ = AttributedText::AttributeTable::add(text.table_, set, index);
    }
    if (text.table_) text.table_->pooled = true;
    return text;
}

WritableTable writableTable(const AttributedText& model, const AttributesRef* sets,
                            std::size_t count) {
    static const char kNoTable = 0;
    const AttributedText::AttributeTable* table = model.table_;
    bool usable = table && table->distinct && table->size == count;
    for (std::size_t i = 0; usable && i < count; ++i)
        usable = table->entries()[i].get() == sets[i].get();
    return {usable ? static_cast<const void*>(table) : &kNoTable, sets};
}

}  // namespace kestro::jsonview::internal
