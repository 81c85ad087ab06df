-- What do each program's hangs wait for?
--   from      first day
--   to        last day
SELECT
    program, reason_kind AS reason, count() AS incidents, uniqExact(cityHash64(device)) AS devices,
    uniqExact(signature_id) AS hangs
FROM fleet.incidents FINAL
WHERE day BETWEEN {from:Date} AND {to:Date}
GROUP BY program, reason
ORDER BY program, incidents DESC, reason
