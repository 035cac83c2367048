namespace cpp bench.rpc

service Echo {
  binary call(1: binary data),
  i64 bulk(1: binary data),
  oneway void post(1: binary data)
}
