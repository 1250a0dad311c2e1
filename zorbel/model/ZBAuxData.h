#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace zorbel {

/// A node in a tree of figures that a process has in addition to its regions. Nodes are immutable.
class ZBAuxDataType {
  public:
    virtual ~ZBAuxDataType() = default;
    ZBAuxDataType(const ZBAuxDataType&) = delete;
    ZBAuxDataType& operator=(const ZBAuxDataType&) = delete;

    /// True for a dictionary, false for a figure.
    [[nodiscard]] virtual bool isContainer() const = 0;
    /// A JSON number, or an object of such values.
    [[nodiscard]] virtual boost::json::value jsonRepresentation() const = 0;

  protected:
    ZBAuxDataType() = default;
};

using ZBAuxDatum = std::shared_ptr<const ZBAuxDataType>;

/// A figure: bytes or a count.
class ZBAuxData final : public ZBAuxDataType {
  public:
    ZBAuxData(std::int64_t value, bool shouldAggregate) : _value(value), _aggregate(shouldAggregate) {}

    [[nodiscard]] std::int64_t value() const { return _value; }
    /// Whether a sum over processes is meaningful.
    [[nodiscard]] bool shouldAggregate() const { return _aggregate; }

    [[nodiscard]] bool isContainer() const override { return false; }
    [[nodiscard]] boost::json::value jsonRepresentation() const override;

  private:
    std::int64_t _value;
    bool _aggregate;
};

/// Figures and dictionaries, ordered by label.
class ZBAuxDataDictionary final : public ZBAuxDataType {
  public:
    using Entries = std::map<std::string, ZBAuxDatum>;

    ZBAuxDataDictionary() = default;
    explicit ZBAuxDataDictionary(Entries entries) : _entries(std::move(entries)) {}

    [[nodiscard]] const Entries& entries() const { return _entries; }

    [[nodiscard]] bool isContainer() const override { return true; }
    [[nodiscard]] boost::json::value jsonRepresentation() const override;

    /// Adds this tree and another one, which may be null. Leaves out figures that do not aggregate and
    /// dictionaries that become empty; null if nothing is left. If both trees have a figure, this tree's
    /// decides whether it aggregates. Asserts that a label is a dictionary in both trees or in neither.
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> mergeWithData(
        const ZBAuxDataDictionary* data) const;

    /// mergeWithData for one label; withDatum may be null.
    static ZBAuxDatum mergeAuxDatum(const ZBAuxDatum& datum, const ZBAuxDatum& withDatum);

  private:
    Entries _entries;
};

}  // namespace zorbel
