// Values against a model that shares nothing: the same random changes are made to both, and after
// each step every value must show what its model shows.
#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/allocationcount.hpp"
#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

/// A value that copies deeply: an array of its like, or the text of a value that is none.
struct Model {
  bool isArray = false;
  std::string text = "null";
  std::vector<Model> elements;

  static Model array(std::vector<Model> elements) { return {true, "", std::move(elements)}; }
  bool operator==(Model const&) const = default;

  std::string toString() const {
    if (!isArray) return text;
    std::string out = "[";
    for (std::size_t i = 0; i < elements.size(); ++i) {
      if (i > 0) out += ',';
      out += elements[i].toString();
    }
    return out += ']';
  }
};

/// A value and its model, changed alike.
struct Twin {
  KXValue value;
  Model model;

  Twin() = default;
  explicit Twin(KXValue flat) : value(std::move(flat)) { model.text = value.toString(1); }
};

/// Where a change happens: a value and its model, or the same place deep inside them.
struct Place {
  KXValue* value;
  Model* model;
};

/// Some values with their models, and the changes that are made to places in them.
class Twins {
 public:
  explicit Twins(unsigned seed) : mRandom(seed) {}

  void step() {
    std::size_t const target = pick(kCount);
    std::size_t const other = (target + 1 + pick(kCount - 1)) % kCount;
    // Taken before the descent: references into a value end when it is copied.
    Twin const source = anySource();
    Twin rows = pick(3) == 0 ? builtRows() : Twin();
    Place const place = descend(mTwins[target]);
    switch (pick(10)) {
      case 0:
        assign(place, Twin());
        break;
      case 1:
        assign(place, source);
        break;
      case 2:
        push(place, source);
        break;
      case 3:
        resize(place, static_cast<int>(pick(5)));
        break;
      case 4:
        moveOut(place, mTwins[other]);
        break;
      case 5:
        swap(place, descend(mTwins[other]));
        break;
      case 6:
        // A value that takes the place of what it was part of.
        if (!place.model->isArray || place.model->elements.empty()) break;
        *place.value = std::move((*place.value)[0]);
        *place.model = Model(place.model->elements[0]);
        break;
      default:
        if (!rows.model.isArray) break;
        *place.value = std::move(rows.value);
        *place.model = rows.model;
        break;
    }
  }

  void check() const {
    for (Twin const& each : mTwins) ASSERT_EQ(each.value.toString(1), each.model.toString());
    for (Twin const& each : mTwins) {
      ASSERT_EQ(each.value == mTwins[0].value, each.model == mTwins[0].model);
    }
  }

 private:
  static constexpr std::size_t kCount = 5;

  std::size_t pick(std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(mRandom);
  }

  Twin flat() {
    int const number = static_cast<int>(pick(1000));
    switch (pick(4)) {
      case 0:
        return Twin(number);
      case 1:
        return Twin(0.5 + number);
      case 2:
        return Twin("text " + std::to_string(number));
      default:
        return Twin();
    }
  }

  // A copy of one of the values, or of a part of it that nothing was written to; no large one, for
  // the values would grow without bounds.
  Twin anySource() {
    Twin const& top = mTwins[pick(kCount)];
    KXValue const* value = &top.value;
    Model const* model = &top.model;
    while (model->isArray && !model->elements.empty() && pick(3) != 0) {
      std::size_t const index = pick(model->elements.size());
      value = &(*value)[static_cast<int>(index)];
      model = &model->elements[index];
    }
    if (model->toString().size() > 200) return flat();
    Twin copy;
    copy.value = *value;
    copy.model = *model;
    return copy;
  }

  Twin anyArray() {
    Twin array;
    array.model = Model::array({});
    for (std::size_t i = 1 + pick(3); i > 0; --i) {
      Twin const element = anySource();
      array.value.arrayPush(KXValue::arrayOf(element.value));
      array.model.elements.push_back(Model::array({element.model}));
    }
    return array;
  }

  // An array of rows, of any capacity and filled to any part of it.
  Twin builtRows() {
    std::size_t const capacity = std::array<std::size_t, 5>{0, 1, 2, 3, 12}[pick(5)];
    Twin shared = pick(2) == 0 ? anySource() : anyArray();
    std::size_t const places = shared.model.isArray ? shared.model.elements.size() : 0;
    KXRows rows(capacity, std::move(shared.value));  // often nobody else holds it
    Twin twin;
    twin.model = Model::array({});
    for (std::size_t i = 0; i < capacity && pick(8) != 0; ++i) {
      Twin const second = pick(3) == 0 ? anySource() : flat();
      if (places > 0 && pick(4) != 0) {
        std::size_t const place = pick(places);
        rows.pushShared(place, second.value);
        twin.model.elements.push_back(Model::array({shared.model.elements[place], second.model}));
      } else {
        Twin const first = anySource();
        rows.push(first.value, second.value);
        twin.model.elements.push_back(Model::array({first.model, second.model}));
      }
    }
    EXPECT_EQ(rows.getSize(), twin.model.elements.size());
    if (pick(5) != 0) {
      twin.value = rows.take();
    } else {
      twin = Twin();  // the builder dies with its rows
    }
    return twin;
  }

  Place descend(Twin& twin) {
    Place place{&twin.value, &twin.model};
    while (place.model->isArray && !place.model->elements.empty() && pick(4) != 0) {
      std::size_t const index = pick(place.model->elements.size());
      place.value = pick(2) == 0 ? &(*place.value)[static_cast<int>(index)]
                                 : place.value->arrayData() + index;
      place.model = &place.model->elements[index];
    }
    return place;
  }

  static void assign(Place const& place, Twin const& source) {
    *place.value = source.value;
    *place.model = source.model;
  }

  static void push(Place const& place, Twin const& source) {
    if (!place.model->isArray) {
      *place.value = KXValue::arrayOf();
      *place.model = Model::array({});
    }
    place.value->arrayPush(source.value);
    place.model->elements.push_back(source.model);
  }

  static void resize(Place const& place, int size) {
    place.value->arraySetSize(size);
    if (!place.model->isArray) *place.model = Model::array({});
    place.model->elements.resize(static_cast<std::size_t>(size));
  }

  static void moveOut(Place const& place, Twin& target) {
    target.value = std::move(*place.value);
    target.model = std::exchange(*place.model, Model());
  }

  static void swap(Place const& one, Place const& other) {
    one.value->swap(*other.value);
    std::swap(*one.model, *other.model);
  }

  std::mt19937 mRandom;
  std::array<Twin, kCount> mTwins;
};

TEST(ValueModel, AgreesAfterEveryRandomChange) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    long const before = liveAllocations();
    {
      Twins twins(seed);
      for (int step = 0; step < 300; ++step) {
        twins.step();
        twins.check();
        if (HasFatalFailure()) return;
      }
    }
    ASSERT_EQ(liveAllocations(), before);
  }
}

}  // namespace
}  // namespace KX
