# Converts the results of the benchmark programs to table rows.

def row: "| \(map(tostring) | join(" | ")) |";
def tenth: . * 10 | round / 10;
def short: if . < 100 then tenth else round end;
def per_packet: .cpu_time / .packets;

def codec:
  INDEX(.name) as $all
  | ["find", "offer", "seven offers"]
  | to_entries[]
  | .key as $kind
  | $all["encodePacket/\($kind)"] as $encode
  | $all["storeBytes/\($kind)"] as $store
  | $all["decodeKnown/\($kind)"] as $known
  | $all["decodeNew/\($kind)"] as $new
  | $all["loadBytes/\($kind)"] as $load
  | $all["copyBytes/\($kind)"] as $copy
  | [.value,
     ($encode | per_packet | round), (($encode | per_packet) / ($store | per_packet) | round),
     ($encode.allocations | round),
     ($known | per_packet | round), (($known | per_packet) / ($load | per_packet) | round),
     ($known.allocations | round),
     ($new | per_packet | round), ($new.allocations | round),
     ($copy | per_packet | tenth)]
  | row;

def state_machine:
  map(select(.aggregate_name == "median"))
  | group_by(.family_index)[]
  | map(.real_time) as $times
  | [(.[0].run_name | sub("/.*"; "") | sub("Order::"; ""))]
    + ($times | map(short))
    + [$times[4] / $times[1] | tenth]
  | row;

def tick:
  sort_by(.services, .interfaces)[]
  | [.services, .interfaces, (.real_time | tenth), (.real_time * 1000 / .services | round), (.allocations | round)]
  | row;
