-- At which hours of the day (UTC) do processes hang?
--   from       first day
--   to         last day
--   signature  the id of one hang; empty: of all ()
SELECT toHour(time) AS hour, count() AS incidents, uniqExact(cityHash64(device)) AS devices
FROM fleet.incidents FINAL
WHERE day BETWEEN {from:Date} AND {to:Date}
    AND ({signature:String} = '' OR signature_id = {signature:String})
GROUP BY hour
ORDER BY hour
