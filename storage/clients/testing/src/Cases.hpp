#pragma once

/// One function that does nothing in each file of cases.
///
/// Cases register themselves in static initialisers, which nothing refers to, so a linker would leave their files in
/// the static library. The fixture's constructor calls these.
namespace storage::clients::conformance
{

void linkConcurrencyCases();
void linkListingCases();
void linkMultipartCases();
void linkObjectCases();

} // namespace storage::clients::conformance
