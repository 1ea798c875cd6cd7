#include <benchmark/benchmark.h>
#include <fixbuf/public.h>

#include <cstring>
#include <string>

#include "bench/Tree.h"

/// The interface table to one collector over UDP, beside another maker's IPFIX library doing the
/// same: the same names, the same wire, messages of the same size.
namespace bench {
namespace {

constexpr uint32_t records = 100000;

void ours(benchmark::State& state) {
  Wire::get();
  Host host;
  Tree tree(host, records, 1, 1);
  tree.settle();
  uint32_t index = 20000000;
  for (auto _ : state) {
    if (state.range(0) != 0) {  // nothing is kept: a record changed, all messages are built again
      tree.intfs->intfIndexIs(IntfId("Ethernet5"), ++index);
    }
    tree.sendTables();
  }
  state.SetItemsProcessed(state.iterations() * records);
}
BENCHMARK(ours)->ArgName("rebuilt")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

struct Record {
  uint32_t index;
  uint8_t padding[4];
  fbVarfield_t name;
};

void check(bool ok, GError* err, benchmark::State& state) {
  if (!ok) state.SkipWithError(err ? err->message : "failed");
}

void fixbuf(benchmark::State& state) {
  Wire::get();
  GError* err = nullptr;
  fbInfoModel_t* model = fbInfoModelAlloc();
  fbSession_t* session = fbSessionAlloc(model);
  fbInfoElementSpec_t inside[] = {{const_cast<char*>("ingressInterface"), 4, 0},
                                  {const_cast<char*>("paddingOctets"), 4, 0},
                                  {const_cast<char*>("interfaceName"), 0, 0},
                                  FB_IESPEC_NULL};
  fbInfoElementSpec_t outside[] = {{const_cast<char*>("ingressInterface"), 4, 0},
                                   {const_cast<char*>("interfaceName"), 0, 0},
                                   FB_IESPEC_NULL};
  const auto layout = [&](fbInfoElementSpec_t* spec, bool scope) {
    fbTemplate_t* t = fbTemplateAlloc(model);
    check(fbTemplateAppendSpecArray(t, spec, UINT32_MAX, &err), err, state);
    if (scope) fbTemplateSetOptionsScope(t, 1);
    return t;
  };
  check(fbSessionAddTemplate(session, TRUE, 300, layout(inside, false), &err) != 0, err, state);
  check(fbSessionAddTemplate(session, FALSE, 300, layout(outside, true), &err) != 0, err, state);
  const std::string host = Wire::address(true).stringValue();
  const std::string port = std::to_string(firstPort);
  fbConnSpec_t to{};
  to.transport = FB_UDP;
  to.host = const_cast<char*>(host.c_str());
  to.svc = const_cast<char*>(port.c_str());
  fBuf_t* buf = fBufAllocForExport(session, fbExporterAllocNet(&to));
  check(fbSessionExportTemplates(session, &err), err, state);
  check(fBufSetInternalTemplate(buf, 300, &err), err, state);
  check(fBufSetExportTemplate(buf, 300, &err), err, state);
  std::vector<std::string> names;
  for (uint32_t i = 1; i <= records; ++i) names.push_back("Ethernet" + std::to_string(i));
  Record record{};
  for (auto _ : state) {
    for (uint32_t i = 0; i < records; ++i) {
      record.index = i + 1;
      record.name.len = names[i].size();
      record.name.buf = reinterpret_cast<uint8_t*>(names[i].data());
      if (!fBufAppend(buf, reinterpret_cast<uint8_t*>(&record), sizeof record, &err)) {
        check(false, err, state);
        break;
      }
    }
    check(fBufEmit(buf, &err), err, state);
  }
  state.SetItemsProcessed(state.iterations() * records);
  fBufFree(buf);
  fbInfoModelFree(model);
}
BENCHMARK(fixbuf)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
