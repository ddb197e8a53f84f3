// The page of `sbas-view report`. Its script draws the map from DATA on a
// canvas (colours as in `sbas-view map`), shows a pixel's values on hover,
// and on a click, or at load for OUT.html#row=R&col=C, the pixel's history:
// a chart and the table "series-table", one row per date. Nothing here loads
// anything: the content security policy allows inline data only.
#include "view/report_page.h"

namespace view {

std::string report_page()
{
    return R"HTML(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<title>sbas-ts report</title>
<style>
body{font-family:sans-serif;margin:16px 24px;color:#222;max-width:1500px}
h1{font-size:1.35em;margin:0 0 4px} h2{font-size:1.1em;margin:14px 0 6px}
.row{display:flex;flex-wrap:wrap;gap:28px;align-items:flex-start}
.note{color:#555;font-size:.9em} .warn{color:#a00}
#mapwrap{position:relative;display:inline-block;border:1px solid #888;cursor:crosshair}
#map{image-rendering:pixelated;display:block} #overlay{position:absolute;left:0;top:0;pointer-events:none}
#hover{font-family:monospace;min-height:1.3em;margin:4px 0}
.legend span{display:inline-block;margin-right:14px} .sw{display:inline-block;width:12px;height:12px;border:1px solid #666;vertical-align:middle;margin-right:4px}
table{border-collapse:collapse;font-size:.9em} td,th{border:1px solid #ccc;padding:2px 8px;text-align:right}
th{background:#eee} #net{max-width:100%}
</style></head><body>
<h1>sbas-ts results</h1>
<div class="note" id="units"></div>
<div class="row">
<div style="max-width:660px"><h2 id="maptitle">Mean line-of-sight velocity</h2>
<div id="mapwrap"><canvas id="map"></canvas><canvas id="overlay"></canvas></div>
<div><canvas id="bar" width="360" height="14"></canvas><div id="barlabels" class="note"></div></div>
<div class="legend note" id="legend"></div>
<div id="hover">Hover over the map for a pixel's values; click for its history.</div>
<div class="note" id="decimation"></div></div>
<div><h2 id="seriestitle">Displacement history</h2>
<div id="seriesnote" class="note">Click a pixel of the map, or open this page as REPORT.html#row=R&amp;col=C.</div>
<svg id="chart" width="720" height="330" xmlns="http://www.w3.org/2000/svg"></svg>
<table id="series-table"><thead></thead><tbody></tbody></table></div>
</div>
<div class="row"><div><h2>Interferogram network</h2><img id="net" alt="interferogram network" src="data:image/png;base64,@NETWORK@"></div>
<div><h2>Run summary</h2><ul id="summary"></ul></div></div>
<script>
@DATA@
(function(){
"use strict";
function bytes(b){const s=atob(b),u=new Uint8Array(s.length);for(let i=0;i<s.length;i++)u[i]=s.charCodeAt(i);return u;}
function f32(b){return new Float32Array(bytes(b).buffer);}
const M=DATA.map,H=DATA.held;
const mv=f32(M.values),ms=bytes(M.status),raw=f32(H.raw),filt=H.filtered?f32(H.filtered):null,hv=f32(H.velocity),hs=bytes(H.status);
const steps=DATA.dates.length-1;
const $=id=>document.getElementById(id);
const fmt=(v,d)=>Number.isFinite(v)?v.toFixed(d):"no data";
const lon=c=>DATA.x_first+c*DATA.x_step, lat=r=>DATA.y_first+r*DATA.y_step;
const esc=t=>String(t).replace(/[&<>"]/g,c=>({"&":"&amp;","<":"&lt;",">":"&gt;","\"":"&quot;"}[c]));
$("units").textContent="Line-of-sight distance in millimetres: phase \u00d7 wavelength / (4\u03c0), wavelength "+DATA.wavelength+" m. "+
 "Positive: range increase, i.e. motion away from the satellite (e.g. subsidence), for interferograms whose phase grows with slant range. "+
 "Every value is relative to the reference pixel"+(DATA.reference?" (row "+DATA.reference[0]+", col "+DATA.reference[1]+")":" (scene mean)")+".";
$("maptitle").textContent="Mean line-of-sight velocity"+(M.filtered?", filtered":"")+" (mm/yr)";
// Colours of `sbas-view map`: diverging, negative blue, saturating beyond the limits.
const CM=[[5,48,97],[33,102,172],[67,147,195],[146,197,222],[209,229,240],[247,247,247],[253,219,199],[244,165,130],[214,96,77],[178,24,43],[103,0,31]];
function colour(v){let t=(Math.max(-M.limit,Math.min(M.limit,v))+M.limit)/(2*M.limit)*(CM.length-1);const i=Math.min(CM.length-2,Math.floor(t)),f=t-i;
 return CM[i].map((a,k)=>Math.round(a+(CM[i+1][k]-a)*f));}
const NODATA=[190,190,190],UNDET=[70,70,70];
const flipX=DATA.x_step<0,flipY=DATA.y_step>0;
const canvas=$("map"),ov=$("overlay");canvas.width=M.cols;canvas.height=M.rows;
const img=canvas.getContext("2d").createImageData(M.cols,M.rows);
for(let i=0;i<M.rows;i++)for(let j=0;j<M.cols;j++){const c=i*M.cols+j;const rgb=ms[c]==2?UNDET:ms[c]==1?NODATA:colour(mv[c]);
 const x=flipX?M.cols-1-j:j,y=flipY?M.rows-1-i:i,o=4*(y*M.cols+x);img.data[o]=rgb[0];img.data[o+1]=rgb[1];img.data[o+2]=rgb[2];img.data[o+3]=255;}
canvas.getContext("2d").putImageData(img,0,0);
// Displayed on the ground's shape: a degree of longitude shrinks with cos(latitude).
const midlat=lat(DATA.length/2)*Math.PI/180;
let shape=(DATA.length*Math.abs(DATA.y_step))/(DATA.width*Math.abs(DATA.x_step)*Math.max(Math.cos(midlat),0.05));
let cw=640,ch=cw*shape;if(ch>600){ch=600;cw=ch/shape;}
canvas.style.width=cw+"px";canvas.style.height=ch+"px";ov.width=Math.round(cw);ov.height=Math.round(ch);
const bar=$("bar").getContext("2d");for(let x=0;x<360;x++){bar.fillStyle="rgb("+colour((x/359*2-1)*M.limit).join(",")+")";bar.fillRect(x,0,1,14);}
$("barlabels").textContent="\u2212"+M.limit.toPrecision(3)+"  \u2026  0  \u2026  +"+M.limit.toPrecision(3)+" mm/yr (limits \u00b1L, L the larger magnitude of the 2nd and 98th percentiles; beyond them the end colours)";
$("legend").innerHTML='<span><i class="sw" style="background:rgb(190,190,190)"></i>no data (no estimate)</span>'+
 '<span><i class="sw" style="background:rgb(70,70,70)"></i>undetermined: network split at the pixel'+(DATA.undetermined>=0?" ("+DATA.undetermined+" pixels)":"")+'</span>'+
 '<span>\u25b2 reference pixel</span><span>\u25a1 selected pixel</span>';
$("decimation").textContent=(M.stride>1?"The map shows every "+M.stride+"-th row and column ("+M.rows+" \u00d7 "+M.cols+" of "+DATA.length+" \u00d7 "+DATA.width+" pixels). ":"The map shows every pixel ("+DATA.length+" \u00d7 "+DATA.width+"). ")+
 (H.stride>1?"Histories are held for every "+H.stride+"-th row and column ("+H.rows+" \u00d7 "+H.cols+" pixels, decimated)"+(H.extras.length?" plus "+H.extras.length+" chosen pixels":"")+"; a click elsewhere shows the nearest held pixel. ":"Histories are held for every pixel. ")+
 "The page holds at most 500,000 map cells and 600,000 history values (under 8 MB).";
function cellXY(r,c){const i=Math.floor(r/M.stride),j=Math.floor(c/M.stride);const x=flipX?M.cols-1-j:j,y=flipY?M.rows-1-i:i;return [(x+0.5)*ov.width/M.cols,(y+0.5)*ov.height/M.rows];}
let selected=null;
function drawOverlay(){const g=ov.getContext("2d");g.clearRect(0,0,ov.width,ov.height);
 if(DATA.reference){const [x,y]=cellXY(DATA.reference[0],DATA.reference[1]);g.beginPath();g.moveTo(x,y-9);g.lineTo(x+8,y+6);g.lineTo(x-8,y+6);g.closePath();g.fillStyle="#000";g.fill();g.strokeStyle="#fff";g.lineWidth=1.5;g.stroke();}
 if(selected){const [x,y]=cellXY(selected[0],selected[1]);const s=Math.max(8,ov.width/M.cols);g.strokeStyle="#000";g.lineWidth=2;g.strokeRect(x-s/2-2,y-s/2-2,s+4,s+4);g.strokeStyle="#fff";g.lineWidth=1;g.strokeRect(x-s/2-4,y-s/2-4,s+8,s+8);}}
function pixelAt(ev){const b=canvas.getBoundingClientRect();let x=Math.floor((ev.clientX-b.left)/b.width*M.cols),y=Math.floor((ev.clientY-b.top)/b.height*M.rows);
 x=Math.max(0,Math.min(M.cols-1,x));y=Math.max(0,Math.min(M.rows-1,y));const j=flipX?M.cols-1-x:x,i=flipY?M.rows-1-y:y;return [i*M.stride,j*M.stride,i*M.cols+j];}
canvas.addEventListener("mousemove",ev=>{const [r,c,k]=pixelAt(ev);
 const v=ms[k]==2?"undetermined (network split)":ms[k]==1?"no data":mv[k].toFixed(2)+" mm/yr";
 $("hover").textContent="row "+r+", col "+c+"  lon "+lon(c).toFixed(5)+", lat "+lat(r).toFixed(5)+"  velocity "+v;});
canvas.addEventListener("click",ev=>{const [r,c]=pixelAt(ev);location.hash="row="+r+"&col="+c;});
// The held pixel nearest to (r, c): the held grid or a chosen pixel.
function nearest(r,c){let best=-1,bd=Infinity;
 const gr=Math.min(H.rows-1,Math.max(0,Math.round(r/H.stride))),gc=Math.min(H.cols-1,Math.max(0,Math.round(c/H.stride)));
 for(const [i,j] of [[gr,gc],[Math.floor(r/H.stride),Math.floor(c/H.stride)]]){if(i<0||j<0||i>=H.rows||j>=H.cols)continue;const d=(i*H.stride-r)**2+(j*H.stride-c)**2;if(d<bd){bd=d;best=i*H.cols+j;}}
 H.extras.forEach((e,k)=>{const d=(e[0]-r)**2+(e[1]-c)**2;if(d<bd){bd=d;best=H.rows*H.cols+k;}});return best;}
function heldPixel(k){return k<H.rows*H.cols?[Math.floor(k/H.cols)*H.stride,(k%H.cols)*H.stride]:H.extras[k-H.rows*H.cols];}
function show(r,c){let note="";
 if(!(r>=0&&r<DATA.length&&c>=0&&c<DATA.width)){note="Pixel row "+r+", col "+c+" lies outside the grid of "+DATA.length+" rows \u00d7 "+DATA.width+" columns; ";r=Math.max(0,Math.min(DATA.length-1,r));c=Math.max(0,Math.min(DATA.width-1,c));}
 const k=nearest(r,c),p=heldPixel(k);
 if(p[0]!=r||p[1]!=c)note+=(note?"":"This page does not hold the history of pixel row "+r+", col "+c+" (decimated grid); ")+"showing the nearest pixel it holds, row "+p[0]+", col "+p[1]+".";
 else if(note)note+="showing row "+r+", col "+c+".";
 selected=p;drawOverlay();
 const st=hs[k],v=hv[k],series=[0],fs=filt?[0]:null;for(let t=0;t<steps;t++){series.push(raw[k*steps+t]);if(fs)fs.push(filt[k*steps+t]);}
 if(st==3)note+=(note?" ":"")+"This is the reference pixel: its displacement is zero by definition.";
 if(st==2)note+=(note?" ":"")+"Undetermined: the valid interferograms of this pixel do not connect all dates, so its estimates mean nothing and are left out.";
 if(st==1)note+=(note?" ":"")+"No estimate at this pixel (too few valid interferograms, or masked by the loop-closure check).";
 $("seriestitle").textContent="Displacement history of pixel row "+p[0]+", col "+p[1]+" (lon "+lon(p[1]).toFixed(5)+", lat "+lat(p[0]).toFixed(5)+")";
 $("seriesnote").textContent=note;$("seriesnote").className=st==2||st==1?"note warn":"note";
 const line=DATA.days.map(d=>Number.isFinite(v)?v*d/365.25:NaN);
 chart(series,fs,line,v);
 $("series-table").tHead.innerHTML="<tr><th>date</th><th>displacement (mm)</th>"+(fs?"<th>filtered (mm)</th>":"")+"<th>mean-velocity line (mm)</th></tr>";
 $("series-table").tBodies[0].innerHTML=DATA.dates.map((d,t)=>"<tr><td>"+d+"</td><td>"+fmt(series[t],3)+"</td>"+(fs?"<td>"+fmt(fs[t],3)+"</td>":"")+"<td>"+fmt(line[t],3)+"</td></tr>").join("");}
function chart(series,fs,line,v){const W=720,Ht=330,L=70,R=40,T=14,B=58;let lo=0,hi=0;
 for(const a of [series,fs||[],line])for(const x of a)if(Number.isFinite(x)){lo=Math.min(lo,x);hi=Math.max(hi,x);}
 const pad=Math.max((hi-lo)*0.08,1e-3);lo-=pad;hi+=pad;const span=Math.max(DATA.days[steps],1);
 const X=d=>L+(W-L-R)*d/span,Y=y=>T+(Ht-T-B)*(hi-y)/(hi-lo);let s="";
 const step=Math.pow(10,Math.floor(Math.log10((hi-lo)/5)));const m=[1,2,5,10].find(m=>(hi-lo)/(m*step)<=6)*step;
 for(let y=Math.ceil(lo/m)*m;y<=hi;y+=m){s+='<line x1="'+L+'" x2="'+(W-R)+'" y1="'+Y(y)+'" y2="'+Y(y)+'" stroke="'+(Math.abs(y)<m/2?"#666":"#e4e4e4")+'"/><text x="'+(L-6)+'" y="'+(Y(y)+4)+'" font-size="11" text-anchor="end">'+(+y.toPrecision(6))+'</text>';}
 DATA.days.forEach((d,t)=>{if(t%Math.ceil((steps+1)/8)==0||t==steps)s+='<text x="'+X(d)+'" y="'+(Ht-B+16)+'" font-size="11" text-anchor="middle">'+DATA.dates[t]+'</text>';});
 s+='<rect x="'+L+'" y="'+T+'" width="'+(W-L-R)+'" height="'+(Ht-T-B)+'" fill="none" stroke="#000"/>';
 s+='<text x="14" y="'+((Ht-B+T)/2)+'" font-size="12" transform="rotate(-90 14 '+((Ht-B+T)/2)+')" text-anchor="middle">LOS displacement (mm)</text>';
 const path=(a,colour,w,dash)=>{let d="";a.forEach((y,t)=>{if(Number.isFinite(y))d+=(d?"L":"M")+X(DATA.days[t]).toFixed(1)+","+Y(y).toFixed(1);});return d?'<path d="'+d+'" fill="none" stroke="'+colour+'" stroke-width="'+w+'"'+(dash?' stroke-dasharray="6,4"':'')+'/>':"";};
 if(Number.isFinite(v))s+=path(line,"#e67800",2,true);if(fs)s+=path(fs,"#ca0020",3,false);s+=path(series,"#2166ac",1.5,false);
 series.forEach((y,t)=>{if(Number.isFinite(y))s+='<circle cx="'+X(DATA.days[t])+'" cy="'+Y(y)+'" r="3.5" fill="#2166ac" stroke="#fff"/>';});
 let lx=L;const key=(c,t,dash)=>{s+='<line x1="'+lx+'" x2="'+(lx+24)+'" y1="'+(Ht-14)+'" y2="'+(Ht-14)+'" stroke="'+c+'" stroke-width="2.5"'+(dash?' stroke-dasharray="6,4"':'')+'/><text x="'+(lx+30)+'" y="'+(Ht-10)+'" font-size="12">'+esc(t)+'</text>';lx+=40+t.length*6.5;};
 key("#2166ac","estimate");if(fs)key("#ca0020","filtered");if(Number.isFinite(v))key("#e67800","mean velocity "+v.toFixed(2)+" mm/yr",true);
 $("chart").innerHTML=s;}
function fromHash(){const m=/row=(-?\d+)&col=(-?\d+)/.exec(location.hash);if(m)show(parseInt(m[1],10),parseInt(m[2],10));}
window.addEventListener("hashchange",fromHash);
const S=DATA.summary;
$("summary").innerHTML=["Result folder: "+esc(DATA.title),"Grid: "+DATA.length+" rows \u00d7 "+DATA.width+" columns",
 "Dates: "+S.dates+" ("+S.first+" to "+S.last+")"+(S.usedDates!=S.dates?", "+S.usedDates+" in the interferograms used":""),
 "Interferograms: "+S.listed+" listed, "+S.used+" used, "+S.dropped.length+" dropped by the loop-closure check",
 "Reference: "+(DATA.reference?"pixel row "+DATA.reference[0]+", col "+DATA.reference[1]+" (lon "+lon(DATA.reference[1]).toFixed(5)+", lat "+lat(DATA.reference[0]).toFixed(5)+")":"scene mean"),
 "Stages: "+S.stages.map(esc).join("; "),
 DATA.undetermined>=0?"Undetermined pixels (network split at the pixel): "+DATA.undetermined+"; pixels without estimate: "+DATA.noEstimate:"The temporal constraint ties every date: no pixel is undetermined",
 S.dropped.length?"Dropped: "+S.dropped.map(esc).join(", "):""].filter(x=>x).map(x=>"<li>"+x+"</li>").join("");
drawOverlay();fromHash();
})();
</script></body></html>
)HTML";
}

}  // namespace view
