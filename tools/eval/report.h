#pragma once
// The evaluation's outputs: the printed table, the JSON document, the headline numbers and
// the stored floors the quick run is held to.

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "runner.h"

namespace quorvik::eval {

Tally total_of(const std::vector<CaseResult>& results);

// Headline numbers by name. Higher is better for the `kHigherIsBetter` ones, lower for the
// rest; a metric without data (no floor frames, nobody fully visible) is left out.
std::map<std::string, double> headline(const Tally& t);
bool higher_is_better(const std::string& metric);

void print_table(std::ostream& out, const std::vector<CaseResult>& results);
nlohmann::json to_json(const std::vector<CaseResult>& results);

// Floors: {"min": {metric: value}, "max": {metric: value}}. Returns one line per metric
// outside its bound ("" lines never); a metric the floors name but the run lacks fails too.
std::vector<std::string> check_floors(const std::map<std::string, double>& metrics, const nlohmann::json& floors);
// The current results loosened by a margin: 10% below for higher-is-better metrics, 25% above
// plus a small absolute slack for the others.
nlohmann::json floors_from(const std::map<std::string, double>& metrics);

}  // namespace quorvik::eval
