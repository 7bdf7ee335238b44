#include "demo_catalog.h"

namespace vistrel_demo {

namespace {

std::vector<CatalogBook> MakeCatalog() {
  std::vector<CatalogBook> books;
  books.push_back(CatalogBook{
      "9783980000109",
      "The Lighthouse Keeper's Almanac",
      "Mara Ellison",
      "en",
      "EPUB",
      "application/epub+zip",
      "epub",
      499,
      {"On the first day of every month the keeper wrote the weather into a blue book, and on "
       "the last day he read it back aloud to the gulls, who did not care for statistics.",
       "In January the wind came from the north and stayed there like a guest who has "
       "forgotten where he lives. The lamp burned eleven hours a night and the oil lasted.",
       "In April the fog arrived in the mornings, polite and grey, and left again at noon. "
       "Ships passed, blew their horns twice, and the keeper answered with one.",
       "By October he had learnt that an almanac is not a forecast but a kind of promise: "
       "the sea would do what it liked, and he would write it down."}});
  books.push_back(CatalogBook{
      "9783980000116",
      "Seven Small Rivers",
      "Jonas Berg",
      "en",
      "EPUB",
      "application/epub+zip",
      "epub",
      299,
      {"The first river is the one behind the school, narrow enough to jump and deep enough "
       "to lose a shoe in. Every child in the village has lost a shoe in it.",
       "The second river runs under the market. You cannot see it, but on quiet Sundays you "
       "can hear it between the stalls, counting the cobblestones.",
       "The third river is made of rain and exists only in November, when it runs down the "
       "hill road and carries leaves to places leaves have never been.",
       "The remaining four rivers are in the next chapter, which the author is still walking."}});
  books.push_back(CatalogBook{
      "9783980000123",
      "A Field Guide to Quiet Machines",
      "Ida Vance",
      "en",
      "PDF",
      "application/pdf",
      "pdf",
      349,
      {"A quiet machine is one that does its work without asking to be admired. The clock in "
       "the hall is a quiet machine; the kettle, at the end, is not.",
       "To observe quiet machines, sit still for a quarter of an hour in a room that you "
       "believe to be silent. Count what you hear: the refrigerator, the radiator, the house.",
       "Record each machine with its place, its sound and the hour. Do not try to repair "
       "anything. A field guide is for seeing, not for fixing.",
       "Most quiet machines are older than their owners think and will outlast them with "
       "the same patient hum."}});
  books.push_back(CatalogBook{
      "9783980000130",
      "Letters from the Salt Road",
      "Tom\xc3\xa1s Reyes",
      "en",
      "EPUB",
      "application/force-download",
      "epub",
      199,
      {"Dear Ana, the salt road is longer than the map says. The map was drawn by a man who "
       "travelled it in his sleep, and it shows.",
       "We walk in the mornings and in the evenings and rest under the carts at noon. The "
       "mules know the way better than we do and tell us so.",
       "Yesterday we met a caravan going the other way, carrying nothing at all. They said "
       "they were bringing it back to where it came from.",
       "Keep the lamp in the window. I will be home when the salt is sold, or sooner, if "
       "the salt is heavier than I think."}});
  return books;
}

}  // namespace

const std::vector<CatalogBook>& DemoCatalog() {
  static const std::vector<CatalogBook> catalog = MakeCatalog();
  return catalog;
}

const CatalogBook* FindCatalogBook(const std::string& ean) {
  for (const CatalogBook& book : DemoCatalog()) {
    if (book.ean == ean) return &book;
  }
  return nullptr;
}

}  // namespace vistrel_demo
