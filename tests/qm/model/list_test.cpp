// The intrusive lists: exact link updates (including the tolerated misuse of
// AddHead), removal at the ends, copying, walks that free the current node.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/elements.h"
#include "model/list.h"
#include "model/records.h"

namespace {

using V = std::vector<std::string>;

Node* Arg(const char* text) {
  auto* a = new Argument{};
  a->argument = text;
  return NodeOf(a);
}

V Texts(const List& list) {
  V out;
  for (Argument* a : Elements<Argument>(list)) out.emplace_back(a->argument.view());
  return out;
}

class ListTest : public ::testing::Test {
 protected:
  void TearDown() override { RemoveList(&args_); }

  List args_{nullptr, nullptr, Arguments};
};

TEST_F(ListTest, LinksAtTheEndsAndInFrontOfAChosenNode) {
  EXPECT_EQ(RemHead(&args_), nullptr);
  Node* a = Arg("a");
  AddTail(&args_, a);
  delete ElementOf<Argument>(RemHead(&args_));
  EXPECT_EQ(args_.Head, nullptr);
  EXPECT_EQ(args_.Tail, nullptr);

  // AddHead never touches Tail, even on an empty list (callers use PreInsert).
  Node* b = Arg("b");
  AddHead(&args_, b);
  EXPECT_EQ(args_.Tail, nullptr);
  args_.Tail = b;

  Node* d = Arg("d");
  AddTail(&args_, d);
  PreInsert(&args_, d, Arg("c"));
  PreInsert(&args_, b, a = Arg("a"));
  Node* e = Arg("e");
  AddTail(&args_, e);
  EXPECT_EQ(Texts(args_), (V{"a", "b", "c", "d", "e"}));
  delete ElementOf<Argument>(RemNode(&args_, e));
  EXPECT_EQ(args_.Tail, d);
  EXPECT_EQ(d->Next, nullptr);
  delete ElementOf<Argument>(RemNode(&args_, a));
  EXPECT_EQ(args_.Head, b);
  EXPECT_EQ(b->Prev, nullptr);
  EXPECT_EQ(Texts(args_), (V{"b", "c", "d"}));
}

TEST_F(ListTest, AddListCopiesArgumentsOnlyAndRefusesOtherKinds) {
  AddTail(&args_, Arg("-d"));
  AddTail(&args_, Arg("q1"));
  List copy{nullptr, nullptr, Arguments};
  EXPECT_EQ(AddList(&copy, &args_), 2);
  EXPECT_EQ(Texts(copy), (V{"-d", "q1"}));
  RemoveList(&copy);
  List jobs{nullptr, nullptr, Jobs};
  Job j1, j2;
  AddTail(&jobs, NodeOf(&j1));
  AddTail(&jobs, NodeOf(&j2));
  EXPECT_EQ(AddList(&jobs, &jobs), 0);
  EXPECT_EQ(jobs.Tail, NodeOf(&j2));
  EXPECT_EQ(AddList(&jobs, &args_), 0);
}

int Value(Node* n, void*) { return std::stoi(std::string(ElementOf<Argument>(n)->argument.view())); }

void FreeIfOdd(Node* n, void* list, void* seen) {
  Argument* a = ElementOf<Argument>(n);
  static_cast<V*>(seen)->emplace_back(a->argument.view());
  if (Value(n, nullptr) % 2 != 0) delete ElementOf<Argument>(RemNode(static_cast<List*>(list), n));
}

TEST_F(ListTest, WalksMayFreeTheCurrentNodeAndNeverReturnNegatives) {
  EXPECT_EQ(iWalkList(&args_, Value, nullptr), 0);
  for (const char* t : {"-3", "-1"}) AddTail(&args_, Arg(t));
  EXPECT_EQ(iWalkList(&args_, Value, nullptr), 0);
  for (const char* t : {"7", "2", "4"}) AddTail(&args_, Arg(t));
  EXPECT_EQ(iWalkList(&args_, Value, nullptr), 7);

  V seen;
  WalkList(&args_, FreeIfOdd, &args_, &seen);
  EXPECT_EQ(seen, (V{"-3", "-1", "7", "2", "4"}));
  EXPECT_EQ(Texts(args_), (V{"2", "4"}));
  EXPECT_EQ(QueSize(&args_), 2u);
  for (Argument* a : Elements<Argument>(args_)) delete ElementOf<Argument>(RemNode(&args_, NodeOf(a)));
  EXPECT_EQ(args_.Head, nullptr);
  EXPECT_EQ(args_.Tail, nullptr);
}

}  // namespace
