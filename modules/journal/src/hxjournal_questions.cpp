#include "hxjournal.h"
#include "inspector.h"

#include <hxproxies/hxmemoryproxy.h>

namespace HX {

void HXJournal::bindQuestions() {
  functionName("explain", getName(), "Tells what there is to know of a key.");
  addParam("key", "name of it");
  setReturn(
      "explanation",
      "a map: key, value, type, kind, description, written; of the retained changes last (time, author, revision), "
      "rate (a second, over the last second and minute), changes, reach in seconds; subscribers, calls, waits, "
      "extractor, mapped, odd; expected (limit, overdue) where it is to be written so often. Times are microseconds "
      "since 1970, durations seconds. What only the journal knows is a text that says so while it does not record");
  bindMethod(this, &HXJournal::explain);

  functionName("demand", getName(), "Tells what extractors produce, and for whom.");
  addParam("extractor", "name of one, or nothing for all");
  setReturn("productions",
            "a list of maps: extractor, event, there, told, process, for (module, since, asked, subscribed, failure), "
            "forNobody where it runs for nobody, failure where it does not run although asked");
  bindMethod(this, &HXJournal::demand);

  functionName("report", getName(), "Tells how the memory is.");
  setReturn("report",
            "a map: keys, residentBytes, changesPerSecond, subscriptions, slowest, calls, waits, dropped, followers, "
            "extractors, severalAuthors, overdue, and wrong: a list of sentences");
  bindMethod(this, &HXJournal::report);

  functionName("missed", getName(),
               "Tells how many raises a module was not told of since its subscription ended without it.");
  addParam("event", "what it was subscribed to");
  addParam("module", "name of it");
  setReturn("count",
            "0 while the subscription stands; nothing where the journal does not know. Raises that waited behind the "
            "one at which it ended are not in it");
  bindMethod(this, &HXJournal::missed);

  functionName("figures", getName(), "Tells what is counted of subscribers and followers. Costs little.");
  setReturn("figures",
            "a map: subscriptions, how many; slow, of how many the last call took 100 ms or more; calls: for each "
            "subscriber [name, how many calls took up to each of bounds and more than the one before, the last of them "
            "more than all, seconds in all]; bounds, in seconds; mappings, [service, signal, event] each; dropped and "
            "followers as in the report");
  bindMethod(this, &HXJournal::figures);

  functionName("subscribers", getName(), "Tells who is subscribed to some keys.");
  addParam("keys", "names of them");
  setReturn("subscribers", "a map of lists, by key, as explain gives them");
  bindMethod(this, &HXJournal::subscribers);
}

HXValue HXJournal::explain(const std::string& key) { return Inspector(getParentBroker(), memory()).explain(key); }

HXValue HXJournal::demand(const std::string& extractor) {
  return Inspector(getParentBroker(), memory()).demand(extractor);
}

HXValue HXJournal::missed(const std::string& event, const std::string& module) {
  return Inspector(getParentBroker(), memory()).missed(event, module);
}

HXValue HXJournal::figures() { return Inspector(getParentBroker(), memory()).figures(); }

HXValue HXJournal::subscribers(const std::vector<std::string>& keys) {
  return Inspector(getParentBroker(), memory()).subscribers(keys);
}

HXValue HXJournal::report() { return Inspector(getParentBroker(), memory()).report(); }

}  // namespace HX
